#include "platform/access_reg.h"

#include <cstring>
#include <new>

#include "store.h"

namespace marquel {
namespace {

// Records why an operation was refused and returns false.
bool Refuse(uint32_t code, const char* message) {
  store::SetStatus(code, message);
  return false;
}

bool NoKey() {
  return Refuse(ERROR_INVALID_HANDLE, "no key is open");
}

// Copies `text` with its terminator into a caller's buffer of `capacity` bytes.
uint32_t CopyName(const std::string& text, char* buffer, uint32_t capacity) {
  if (buffer == nullptr || text.size() + 1 > capacity) {
    return store::SetStatus(ERROR_MORE_DATA, "name does not fit the buffer");
  }
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return ERROR_SUCCESS;
}

// Reads a value through an open key. A root opened before its store existed has no
// connection and no values.
uint32_t ReadThrough(OpenStoreKey& key, const char* valueName, uint32_t* type,
                     std::vector<uint8_t>* data) {
  uint32_t status = store::CheckValueName(valueName);
  if (status != ERROR_SUCCESS) return status;
  if (key.conn == nullptr) return store::SetStatus(ERROR_FILE_NOT_FOUND, "value does not exist");
  return key.conn->ReadValue(key.keyId, valueName != nullptr ? valueName : "", type, data);
}

}  // namespace

AccessReg::AccessReg(int narrow) : m_nNarrow(narrow) {}

AccessReg::AccessReg(RegRoot root, const char* subKeyPath, int narrow) : m_nNarrow(narrow) {
  Open(root, subKeyPath);
}

AccessReg::~AccessReg() {
  Close();
}

bool AccessReg::Open(RegRoot root, const char* subKeyPath) {
  Close();  // the old key goes even when the new open fails
  std::vector<std::string> parts;
  uint32_t status = store::SplitKeyPath(root, subKeyPath, &parts);
  store::ConnectionRef conn;
  if (status == ERROR_SUCCESS) status = store::Connection::Open(root, false, &conn);
  int64_t id = 0;
  if (status == ERROR_FILE_NOT_FOUND && conn == nullptr && parts.empty()) {
    // A root always exists, even before its store file has been written.
    status = store::Ok();
  } else if (status == ERROR_SUCCESS) {
    status = conn->FindKey(0, parts, &id);
  }
  m_dwLastError = status;
  if (status != ERROR_SUCCESS) return false;
  m_hKey.reset(new (std::nothrow) OpenStoreKey{root, id, std::move(conn)});
  if (m_hKey == nullptr) m_dwLastError = ERROR_NOT_ENOUGH_MEMORY;
  return m_hKey != nullptr;
}

bool AccessReg::Close() {
  if (m_hKey == nullptr) return false;
  m_hKey.reset();
  return true;
}

bool AccessReg::QueryDword(const char* valueName, uint32_t* value, uint32_t* errorOut) {
  if (m_hKey == nullptr) return NoKey();
  uint32_t type = 0;
  std::vector<uint8_t> data;
  uint32_t status = ReadThrough(*m_hKey, valueName, &type, &data);
  if (status == ERROR_SUCCESS && data.size() != sizeof(uint32_t)) {
    status = store::SetStatus(ERROR_INVALID_DATA, "value is not 4 bytes long");
  }
  if (status == ERROR_SUCCESS && value != nullptr) std::memcpy(value, data.data(), 4);
  if (errorOut != nullptr) *errorOut = m_dwLastError;  // the recorded code, not this call's
  return status == ERROR_SUCCESS && value != nullptr;
}

std::unique_ptr<uint8_t[]> AccessReg::QueryBinary(const char* valueName, uint32_t* size) {
  if (size == nullptr || *size == 0) return nullptr;
  if (m_hKey == nullptr) {
    NoKey();
    return nullptr;
  }
  uint32_t type = 0;
  std::vector<uint8_t> data;
  if (ReadThrough(*m_hKey, valueName, &type, &data) != ERROR_SUCCESS) return nullptr;
  if (data.size() != *size) {
    // A value of another size counts as absent; the caller learns the stored size.
    store::SetStatus(data.size() > *size ? ERROR_MORE_DATA : ERROR_INVALID_DATA,
                     "value has another size than expected");
    *size = static_cast<uint32_t>(data.size());
    return nullptr;
  }
  std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[*size]);
  if (buffer == nullptr) {
    store::SetStatus(ERROR_NOT_ENOUGH_MEMORY, "out of memory");
    return nullptr;
  }
  std::memcpy(buffer.get(), data.data(), *size);
  return buffer;
}

bool AccessReg::QueryString(const char* valueName, char* buffer, uint32_t capacity,
                            uint32_t* errorOut) {
  if (m_hKey == nullptr) return NoKey();
  if (buffer != nullptr && capacity > 0) buffer[0] = 0;
  uint32_t type = 0;
  std::vector<uint8_t> data;
  uint32_t status = buffer == nullptr ? store::SetStatus(ERROR_INVALID_PARAMETER, "no buffer")
                                      : ReadThrough(*m_hKey, valueName, &type, &data);
  if (status == ERROR_SUCCESS) {
    // Text stored without its terminator gets one here, so the buffer always holds a
    // terminated string; text that cannot fit with it is refused rather than cut.
    const bool terminated = !data.empty() && data.back() == 0;
    const size_t needed = data.size() + (terminated ? 0 : 1);
    if (needed > capacity) {
      status = store::SetStatus(ERROR_MORE_DATA, "text value does not fit the buffer");
    } else {
      if (!data.empty()) std::memcpy(buffer, data.data(), data.size());
      buffer[needed - 1] = 0;
    }
  }
  m_dwLastError = status;
  if (errorOut != nullptr) *errorOut = status;
  return status == ERROR_SUCCESS;
}

bool AccessReg::QueryValue(const char* valueName, uint32_t* type, std::vector<uint8_t>* data) {
  if (m_hKey == nullptr) return NoKey();
  if (type == nullptr || data == nullptr) return false;
  return ReadThrough(*m_hKey, valueName, type, data) == ERROR_SUCCESS;
}

bool AccessReg::QueryStringList(const char* valueName, std::vector<std::string>* list) {
  constexpr size_t kMaxListBytes = 2500;
  if (m_hKey == nullptr) return NoKey();
  if (list == nullptr) return false;
  list->clear();
  uint32_t type = 0;
  std::vector<uint8_t> data;
  if (ReadThrough(*m_hKey, valueName, &type, &data) != ERROR_SUCCESS) return false;
  if (data.size() > kMaxListBytes) {
    store::SetStatus(ERROR_MORE_DATA, "text list longer than 2500 bytes");
    return false;
  }
  std::string text(data.begin(), data.end());
  text.resize(strnlen(text.c_str(), text.size()));
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(';', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) list->push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return true;
}

uint32_t AccessReg::PrepareWrite() {
  if (m_hKey->conn != nullptr) return ERROR_SUCCESS;
  return store::Connection::Open(m_hKey->root, true, &m_hKey->conn);
}

bool AccessReg::SetValue(const char* valueName, const void* data, uint32_t type, uint32_t size) {
  if (m_hKey == nullptr) return NoKey();
  uint32_t status = (data == nullptr && size > 0)
                        ? store::SetStatus(ERROR_INVALID_PARAMETER, "no data")
                        : store::CheckValueName(valueName);
  if (status == ERROR_SUCCESS) status = PrepareWrite();
  if (status == ERROR_SUCCESS) {
    status = m_hKey->conn->WriteValue(m_hKey->keyId, valueName != nullptr ? valueName : "", type,
                                      data, size);
  }
  m_dwLastError = status;
  return status == ERROR_SUCCESS;
}

bool AccessReg::SetDword(const char* valueName, uint32_t value, uint32_t* errorOut) {
  if (m_hKey == nullptr) return NoKey();
  m_dwLastSize = sizeof(uint32_t);
  const bool ok = SetValue(valueName, &value, REG_DWORD, sizeof(uint32_t));
  if (errorOut != nullptr) *errorOut = m_dwLastError;
  return ok;
}

bool AccessReg::SetString(const char* valueName, const char* text) {
  if (m_hKey == nullptr) return NoKey();
  m_dwLastSize = 2000;
  if (text == nullptr) text = "";
  return SetValue(valueName, text, REG_SZ, static_cast<uint32_t>(std::strlen(text) + 1));
}

bool AccessReg::DeleteValue(const char* valueName) {
  if (m_hKey == nullptr) return NoKey();
  if (store::CheckValueName(valueName) != ERROR_SUCCESS) return false;
  if (m_hKey->conn == nullptr) {
    return Refuse(ERROR_FILE_NOT_FOUND, "value does not exist");
  }
  return m_hKey->conn->DeleteValue(m_hKey->keyId, valueName != nullptr ? valueName : "") ==
         ERROR_SUCCESS;
}

bool AccessReg::CreateKey(RegRoot root, const char* subKeyPath, const char* className) {
  std::vector<std::string> parts;
  if (store::SplitKeyPath(root, subKeyPath, &parts) != ERROR_SUCCESS) return false;
  store::ConnectionRef conn;
  if (store::Connection::Open(root, true, &conn) != ERROR_SUCCESS) return false;
  int64_t id = 0;
  return conn->CreateKeyPath(0, parts, className != nullptr ? className : "", &id) == ERROR_SUCCESS;
}

bool AccessReg::DeleteKey(RegRoot root, const char* subKeyPath) {
  std::vector<std::string> parts;
  if (store::SplitKeyPath(root, subKeyPath, &parts) != ERROR_SUCCESS) return false;
  if (parts.empty()) return Refuse(ERROR_ACCESS_DENIED, "a root cannot be deleted");
  store::ConnectionRef conn;
  if (store::Connection::Open(root, false, &conn) != ERROR_SUCCESS) return false;
  return conn->DeleteKeyPath(0, parts) == ERROR_SUCCESS;
}

bool AccessReg::FindSubKeysByValue(const char* valueName, const void* data, uint32_t size,
                                   std::vector<std::string>* names) {
  if (names == nullptr) return false;
  names->clear();
  if (m_hKey == nullptr) return NoKey();
  if (data == nullptr && size > 0) return Refuse(ERROR_INVALID_PARAMETER, "no data");
  if (store::CheckValueName(valueName) != ERROR_SUCCESS) return false;
  if (m_hKey->conn == nullptr) {
    if (size > store::kMaxIndexedValueBytes) {
      return Refuse(ERROR_INVALID_PARAMETER, "value too long to be looked up by its contents");
    }
    store::Ok();
    return true;
  }
  return m_hKey->conn->SubKeysWithValue(m_hKey->keyId, valueName != nullptr ? valueName : "", data,
                                        size, names) == ERROR_SUCCESS;
}

bool AccessReg::EnumKey(uint32_t index, char* nameBuffer, uint32_t capacity) {
  if (m_hKey == nullptr) return NoKey();
  if (m_hKey->conn == nullptr) {
    return Refuse(ERROR_NO_MORE_ITEMS, "no more sub-keys");
  }
  std::string name;
  if (m_hKey->conn->SubKeyAt(m_hKey->keyId, index, &name) != ERROR_SUCCESS) return false;
  return CopyName(name, nameBuffer, capacity) == ERROR_SUCCESS;
}

bool AccessReg::EnumValue(uint32_t index, char* nameBuffer, uint32_t capacity, uint32_t* type,
                          uint32_t* dataSize) {
  if (m_hKey == nullptr) return NoKey();
  if (m_hKey->conn == nullptr) {
    return Refuse(ERROR_NO_MORE_ITEMS, "no more values");
  }
  std::string name;
  uint32_t t = 0;
  uint32_t size = 0;
  if (m_hKey->conn->ValueAt(m_hKey->keyId, index, &name, &t, &size) != ERROR_SUCCESS) {
    return false;
  }
  if (CopyName(name, nameBuffer, capacity) != ERROR_SUCCESS) return false;
  if (type != nullptr) *type = t;
  if (dataSize != nullptr) *dataSize = size;
  return true;
}

}  // namespace marquel
