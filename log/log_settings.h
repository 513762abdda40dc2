// The log's file-name setting as the entry points read it (private to log/).
#pragma once

#include <string>

namespace marquel::log::internal {

// A copy of the "log file name" setting.
std::string FileName();

}  // namespace marquel::log::internal
