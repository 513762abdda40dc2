// Env: the facts about the machine that the file calls depend on, behind one seam.
//
// GetFileSystemName, GetSpecialFolder and GetTempFolderFileName (files.h) ask the current
// Env. A test derives from Env, overrides what it needs (for example a volume that
// reports "FAT32") and installs it with SetEnvForTesting, so that file-system limits and
// case-insensitive volumes can be tested without such a volume. Methods not overridden
// keep the real behaviour.
#pragma once

#include <string>

namespace marquel {

class Env {
 public:
  Env() = default;
  virtual ~Env();
  Env(const Env&) = delete;
  Env& operator=(const Env&) = delete;

  // The real machine. Never null, never destroyed.
  static Env* Default();

  // The file-system name of the volume holding `path`, or of its nearest existing parent
  // when `path` does not exist: "FAT16" / "FAT32" for vfat (by cluster count, below 65525
  // clusters is FAT16), else the kernel's type name ("exfat", "ext4", "tmpfs", ...).
  // Empty when no part of the path can be examined.
  virtual std::string FileSystemName(const std::string& path);

  // Whether names on the volume holding `path` compare without regard to case: true for
  // FAT16, FAT32, vfat, msdos and exfat only (NTFS tells case apart on Linux, and
  // fuseblk may be any FUSE block file system). Uses FileSystemName, so a fake volume
  // name is enough to change it.
  virtual bool IsCaseInsensitiveVolume(const std::string& path);

  // The application-data folder: $XDG_DATA_HOME, else $HOME/.local/share. Read from the
  // environment on each call. Empty when neither variable is set.
  virtual std::string AppDataFolder();

  // The temporary folder: $TMPDIR, else /tmp. Read on each call.
  virtual std::string TempFolder();

  // Whether anything (a file, a folder) is at `path` now. A path on a volume that is not
  // mounted is not there; tests fake such a volume here.
  virtual bool IsPathPresent(const std::string& path);
};

// The Env in use: the one installed for testing, else Env::Default().
Env* CurrentEnv();

// Installs `env` for the whole process (the caller keeps ownership and keeps it alive
// while installed); nullptr restores the real one.
void SetEnvForTesting(Env* env);

}  // namespace marquel
