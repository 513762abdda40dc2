// The files whose move the store keeps as pending: one sub-key each under
// "Software\Halvern\Common\MQTemp", named by the file's key name, with the path in
// "PATH" (a long path's key name is a hash). The controller writes them; tools read them.
#pragma once

#include <string>
#include <vector>

namespace marquel {

// A sub-key under MQTemp: its name, and the path it keeps ("" when it keeps none).
struct SavedPendingFile {
  std::string key_name;
  std::string path;
};

// The files the store lists as waiting for a move, in the store's order.
std::vector<SavedPendingFile> SavedPendingFiles();

}  // namespace marquel
