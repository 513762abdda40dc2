// AccessReg: one open key of the store, with value and key operations on it.
//
// The store is a tree of keys, separated by "\" in key paths, each key holding typed
// values. Key and value names compare without regard to ASCII case (A-Z only), sub-keys
// and values enumerate by index in creation order, and a key that has sub-keys cannot be
// deleted. Every write is committed and synchronised to disk before the call returns.
// Names and text are UTF-8; a null value name means the key's default (unnamed) value.
//
// An object belongs to the function that made it and is used by one thread; any number
// of objects in any number of threads and processes may use the same store at once.
// No operation throws or logs. Failures are reported as false or null; the status of the
// most recent store operation of the thread is also kept (StoreLastError and
// StoreLastMessage in reg_types.h) for callers that need to tell the user why.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/reg_types.h"

namespace marquel {

struct OpenStoreKey;  // the store connection and key an object holds (private)

class AccessReg {
 public:
  // An object without an open key. `narrow` selects the narrow text interface; on this
  // platform both interfaces take UTF-8, so it is only kept (IsNarrow).
  explicit AccessReg(int narrow = 0);
  // Makes the object and opens `subKeyPath` under `root` at once, as Open does; on
  // failure the object holds no key and LastError() says why.
  AccessReg(RegRoot root, const char* subKeyPath, int narrow = 0);
  // Closes the key if one is open.
  virtual ~AccessReg();

  AccessReg(const AccessReg&) = delete;
  AccessReg& operator=(const AccessReg&) = delete;

  // Closes any key held, then opens the existing key `subKeyPath` (empty or null: the
  // root itself) with full access. Records the last error: ERROR_FILE_NOT_FOUND for a
  // missing key or store file, ERROR_INVALID_PARAMETER for a component longer than 255
  // characters, ERROR_BAD_PATHNAME for an empty component, ERROR_BADDB for a corrupt
  // store. On failure the object holds no key. Never creates a key or a store file.
  bool Open(RegRoot root, const char* subKeyPath);
  // Closes the key and forgets it; false when none was held.
  bool Close();
  bool IsOpen() const { return m_hKey != nullptr; }

  // Reads a 4-byte value into *value. A value of any other size counts as absent. When
  // errorOut is given it receives the recorded last error, which this call does not
  // refresh (it still holds the code of the latest Open, QueryString or SetValue).
  bool QueryDword(const char* valueName, uint32_t* value, uint32_t* errorOut = nullptr);
  // Reads a value of exactly *size bytes into a new buffer the caller owns; *size then
  // holds the byte count read. Null when *size is 0 (the store is not touched), when the
  // value is absent, or when its size differs from *size (it then counts as absent and
  // *size receives the stored size). Does not record the last error.
  std::unique_ptr<uint8_t[]> QueryBinary(const char* valueName, uint32_t* size);
  // Reads a text value into buffer: sets buffer[0] to 0 first, then copies at most
  // `capacity` bytes. The text read is always zero-terminated inside the buffer: a value
  // that does not fit with its terminator fails with ERROR_MORE_DATA. Records the last
  // error and, when errorOut is given, copies it there.
  bool QueryString(const char* valueName, char* buffer, uint32_t capacity,
                   uint32_t* errorOut = nullptr);
  // Reads any value whole: its type and bytes. Does not record the last error.
  bool QueryValue(const char* valueName, uint32_t* type, std::vector<uint8_t>* data);
  // Reads a text value of at most 2500 bytes and splits it at ";" into *list, skipping
  // empty pieces. A longer value fails. Does not record the last error.
  bool QueryStringList(const char* valueName, std::vector<std::string>* list);

  // Writes `size` bytes of `data` with value type `type`, creating or replacing the
  // value (a replaced value keeps its enumeration position). Records the last error.
  bool SetValue(const char* valueName, const void* data, uint32_t type, uint32_t size);
  // SetValue with REG_DWORD and 4 bytes; sets the last size to 4. errorOut, when given,
  // receives the last error.
  bool SetDword(const char* valueName, uint32_t value, uint32_t* errorOut = nullptr);
  // Writes `text` as REG_SZ, its length counted with the terminating zero; sets the last
  // size to 2000.
  bool SetString(const char* valueName, const char* text);
  // Deletes one value of the open key.
  bool DeleteValue(const char* valueName);

  // Creates `subKeyPath` under `root` with every missing parent (or finds it) and closes
  // it again at once; true when the key exists afterwards. `className` is kept with a
  // newly made key. The object's own key is not changed, and no key is left open.
  bool CreateKey(RegRoot root, const char* subKeyPath, const char* className = nullptr);
  // Deletes the key `subKeyPath` under `root` with its values. Refused when it has
  // sub-keys, and for a root itself.
  bool DeleteKey(RegRoot root, const char* subKeyPath);

  // Collects into *names, in creation order, the sub-keys of the open key whose value
  // `valueName` holds exactly the `size` bytes at `data` (any type). Such lookups go
  // through an index, so they cost the same for ten sub-keys as for ten thousand. Values of
  // at most 16 bytes only: a longer `size` fails with ERROR_INVALID_PARAMETER. True, with
  // perhaps no names, when the lookup ran.
  bool FindSubKeysByValue(const char* valueName, const void* data, uint32_t size,
                          std::vector<std::string>* names);

  // Copies the name of the sub-key at `index` (0-based, creation order) of the open key
  // into nameBuffer (capacity in bytes, terminator included). False past the last
  // sub-key, or when the name does not fit.
  bool EnumKey(uint32_t index, char* nameBuffer, uint32_t capacity);
  // The same for values: the name of the value at `index`, and when asked its type and
  // size in bytes.
  bool EnumValue(uint32_t index, char* nameBuffer, uint32_t capacity, uint32_t* type = nullptr,
                 uint32_t* dataSize = nullptr);

  // The status code recorded by the latest Open, QueryString or SetValue.
  uint32_t LastError() const { return m_dwLastError; }
  // 4 after SetDword, 2000 after SetString, 0 before either.
  uint32_t LastSize() const { return m_dwLastSize; }
  int IsNarrow() const { return m_nNarrow; }

 private:
  // Makes sure the held key has a connection that can write (a root opened while its
  // store file did not exist yet has none). Returns a status code.
  uint32_t PrepareWrite();

  std::unique_ptr<OpenStoreKey> m_hKey;
  uint32_t m_dwLastError = ERROR_SUCCESS;
  uint32_t m_dwLastSize = 0;
  int m_nNarrow = 0;
};

}  // namespace marquel
