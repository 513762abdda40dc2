// Roots, value types and status codes of the store behind AccessReg.
//
// The numbers are those of the Windows registry, so that code written against its
// contract (and log lines that print an error code) keep their meaning.
#pragma once

#include <cstdint>
#include <string>

namespace marquel {

// The three roots. The current user's root and the classes root live in the per-user
// store ($XDG_DATA_HOME/Halvern/registry.db; the classes root is its key
// "Software\Classes"); the local machine's root is the machine-wide store (the file
// named by $MARQUEL_MACHINE_STORE, else /etc/halvern/registry.db).
enum class RegRoot : uint32_t {
  kClassesRoot = 0x80000000u,
  kCurrentUser = 0x80000001u,
  kLocalMachine = 0x80000002u,
};
constexpr RegRoot HKEY_CLASSES_ROOT = RegRoot::kClassesRoot;
constexpr RegRoot HKEY_CURRENT_USER = RegRoot::kCurrentUser;
constexpr RegRoot HKEY_LOCAL_MACHINE = RegRoot::kLocalMachine;

// Value types. The store keeps any type number with the bytes given; these are the ones
// the system writes.
constexpr uint32_t REG_NONE = 0;
constexpr uint32_t REG_SZ = 1;  // text, UTF-8, stored with its terminating zero
constexpr uint32_t REG_EXPAND_SZ = 2;
constexpr uint32_t REG_BINARY = 3;
constexpr uint32_t REG_DWORD = 4;  // 4-byte number, little endian
constexpr uint32_t REG_MULTI_SZ = 7;
constexpr uint32_t REG_QWORD = 11;

// The full-access right that AccessReg::Open asks for.
constexpr uint32_t KEY_ALL_ACCESS = 0xF003F;

// Status codes (Windows error numbers).
constexpr uint32_t ERROR_SUCCESS = 0;
constexpr uint32_t ERROR_FILE_NOT_FOUND = 2;  // key or value does not exist; store file absent
constexpr uint32_t ERROR_PATH_NOT_FOUND = 3;  // the machine store's folder does not exist
constexpr uint32_t ERROR_ACCESS_DENIED = 5;   // store not writable; key with sub-keys; root
constexpr uint32_t ERROR_INVALID_HANDLE = 6;  // the object holds no key
constexpr uint32_t ERROR_NOT_ENOUGH_MEMORY = 8;
constexpr uint32_t ERROR_INVALID_DATA = 13;          // value exists with another size
constexpr uint32_t ERROR_INVALID_PARAMETER = 87;     // name too long, null argument
constexpr uint32_t ERROR_BAD_PATHNAME = 161;         // empty component in a key path
constexpr uint32_t ERROR_BUSY = 170;                 // store locked longer than the busy timeout
constexpr uint32_t ERROR_MORE_DATA = 234;            // caller's buffer too small
constexpr uint32_t ERROR_NO_MORE_ITEMS = 259;        // enumeration index past the last item
constexpr uint32_t ERROR_BADDB = 1009;               // store file corrupt or not a store
constexpr uint32_t ERROR_REGISTRY_IO_FAILED = 1016;  // store file could not be read or written
constexpr uint32_t ERROR_KEY_DELETED = 1018;         // the open key was deleted meanwhile

// Name limits, counted in UTF-16 code units as Windows counts characters.
constexpr uint32_t kMaxKeyNameChars = 255;      // one component of a key path
constexpr uint32_t kMaxValueNameChars = 16383;  // a value name

// The outcome of the most recent store operation on the calling thread: its status code
// (ERROR_SUCCESS after a success) and a readable message (empty after a success), for
// tools that must tell the user why a store could not be used. The store never logs.
uint32_t StoreLastError();
const std::string& StoreLastMessage();

// The store file that backs a root, as the environment names it now (read on each
// call); empty when it cannot be determined (no XDG_DATA_HOME and no HOME).
std::string StoreFilePath(RegRoot root);

}  // namespace marquel
