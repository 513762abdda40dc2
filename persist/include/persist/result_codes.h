// Result codes of the open-file table and of a session's close or migration.
#pragma once

#include <cstdint>

namespace marquel {

constexpr int32_t MQ_SUCCESS = 1;
constexpr int32_t MQ_ERR = -1;
// The data could not go into the media file now; the controller finishes it later.
constexpr int32_t MQ_AUTOPROCESSFAIL = 2;

// The log text of a result: "MQ_SUCCESS", "MQ_ERR", "MQ_AUTOPROCESSFAIL", else "0".
inline const char* ResultText(int32_t result) {
  switch (result) {
    case MQ_SUCCESS:
      return "MQ_SUCCESS";
    case MQ_ERR:
      return "MQ_ERR";
    case MQ_AUTOPROCESSFAIL:
      return "MQ_AUTOPROCESSFAIL";
    default:
      return "0";
  }
}

}  // namespace marquel
