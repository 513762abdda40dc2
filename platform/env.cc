#include "platform/env.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <sstream>

#include "fat_kind.h"

namespace marquel {
namespace {

constexpr long kVfatMagic = 0x4d44;  // MSDOS_SUPER_MAGIC

std::atomic<Env*> g_testEnv{nullptr};

// Kernel names of the common file systems, for when /proc is not mounted.
std::string NameFromMagic(long magic) {
  switch (static_cast<unsigned long>(magic)) {
    case 0xEF53:
      return "ext4";
    case 0x01021994:
      return "tmpfs";
    case 0x9123683E:
      return "btrfs";
    case 0x58465342:
      return "xfs";
    case 0x2011BAB0:
      return "exfat";
    case 0x5346544E:
      return "ntfs";
    case 0x7366746E:
      return "ntfs3";
    case 0x65735546:
      return "fuse";
    case 0x6969:
      return "nfs";
    case 0x794C7630:
      return "overlay";
    case 0xF2F52010:
      return "f2fs";
    case 0x2FC12FC1:
      return "zfs";
    case 0x9660:
      return "iso9660";
    case 0x15013346:
      return "udf";
    default:
      return std::string();
  }
}

// The type name /proc/self/mountinfo gives for the mount of device `dev`.
std::string NameFromMountInfo(dev_t dev) {
  std::ifstream in("/proc/self/mountinfo");
  std::string line;
  const std::string wanted = std::to_string(major(dev)) + ":" + std::to_string(minor(dev));
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string id, parent, devField;
    if (!(fields >> id >> parent >> devField) || devField != wanted) continue;
    size_t sep = line.find(" - ");
    if (sep == std::string::npos) continue;
    std::istringstream tail(line.substr(sep + 3));
    std::string type;
    if (tail >> type) return type;
  }
  return std::string();
}

// `path`, or its nearest parent that exists.
std::string NearestExisting(const std::string& path) {
  std::string p = path.empty() ? std::string(".") : path;
  struct stat st;
  while (stat(p.c_str(), &st) != 0) {
    size_t slash = p.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    p.erase(slash);
  }
  return p;
}

}  // namespace

Env::~Env() = default;

Env* Env::Default() {
  static Env* real = new Env();  // never destroyed, so usable during process exit
  return real;
}

std::string Env::FileSystemName(const std::string& path) {
  const std::string existing = NearestExisting(path);
  struct statfs fs;
  struct stat st;
  if (statfs(existing.c_str(), &fs) != 0 || stat(existing.c_str(), &st) != 0) {
    return std::string();
  }
  if (fs.f_type == kVfatMagic) {
    return FatKindName(static_cast<uint64_t>(fs.f_blocks));
  }
  std::string name = NameFromMountInfo(st.st_dev);
  return name.empty() ? NameFromMagic(fs.f_type) : name;
}

bool Env::IsCaseInsensitiveVolume(const std::string& path) {
  const std::string name = FileSystemName(path);
  // Only the FAT family folds case. NTFS tells case apart on Linux (ntfs3 and ntfs-3g,
  // which mounts as fuseblk, by default), and fuseblk may be any FUSE block file system.
  static const char* const kInsensitive[] = {"FAT16", "FAT32", "vfat", "msdos", "exfat"};
  for (const char* n : kInsensitive) {
    if (name == n) return true;
  }
  return false;
}

std::string Env::AppDataFolder() {
  const char* xdg = getenv("XDG_DATA_HOME");
  // The XDG rules ignore a relative value.
  if (xdg != nullptr && xdg[0] == '/') return xdg;
  const char* home = getenv("HOME");
  if (home != nullptr && home[0] != '\0') return std::string(home) + "/.local/share";
  return std::string();
}

std::string Env::TempFolder() {
  const char* tmp = getenv("TMPDIR");
  std::string dir = (tmp != nullptr && tmp[0] != '\0') ? tmp : "/tmp";
  while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
  return dir;
}

bool Env::IsPathPresent(const std::string& path) {
  struct stat st;
  return !path.empty() && stat(path.c_str(), &st) == 0;
}

Env* CurrentEnv() {
  Env* env = g_testEnv.load(std::memory_order_acquire);
  return env != nullptr ? env : Env::Default();
}

void SetEnvForTesting(Env* env) {
  g_testEnv.store(env, std::memory_order_release);
}

}  // namespace marquel
