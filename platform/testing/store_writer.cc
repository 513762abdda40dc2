// Test helper: writes numbered values into the per-user store, one committed write at a
// time, and reports each finished write on standard output ("<n>\n"), so that a test can
// kill it at any moment and know what the store must hold.
//
//   platform_store_writer COUNT
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/access_reg.h"

int main(int argc, char** argv) {
  using namespace marquel;
  const long count = argc > 1 ? std::strtol(argv[1], nullptr, 10) : 1000;
  const char* key = "Software\\Halvern\\Durability";
  AccessReg reg;
  if (!reg.CreateKey(HKEY_CURRENT_USER, key) || !reg.Open(HKEY_CURRENT_USER, key)) {
    std::fprintf(stderr, "store_writer: %s\n", StoreLastMessage().c_str());
    return 2;
  }
  for (long i = 0; i < count; ++i) {
    const std::string name = "v" + std::to_string(i);
    if (!reg.SetDword(name.c_str(), static_cast<uint32_t>(i * 3 + 1))) {
      std::fprintf(stderr, "store_writer: %s\n", StoreLastMessage().c_str());
      return 2;
    }
    const std::string line = std::to_string(i) + "\n";
    if (write(STDOUT_FILENO, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
      return 3;
    }
  }
  return 0;
}
