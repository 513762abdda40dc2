// Names and texts of the HRESULT values.
#include "marquel/hresult.h"

namespace marquel {

const char* HresultName(HRESULT hr) {
  switch (hr) {
    case S_OK:
      return "S_OK";
    case S_FALSE:
      return "S_FALSE";
    case E_FAIL:
      return "E_FAIL";
    case E_INVALIDARG:
      return "E_INVALIDARG";
    case E_OUTOFMEMORY:
      return "E_OUTOFMEMORY";
    case E_ACCESSDENIED:
      return "E_ACCESSDENIED";
    case E_SERVER_UNAVAILABLE:
      return "E_SERVER_UNAVAILABLE";
    default:
      return "unknown";
  }
}

const char* HresultText(HRESULT hr) {
  switch (hr) {
    case S_OK:
      return "done";
    case S_FALSE:
      return "the server does not know this command";
    case E_FAIL:
      return "the server refused or failed: the handle may not be open, or the data is not "
             "there";
    case E_INVALIDARG:
      return "an argument is wrong: a missing array, a count below 1, a relative file name, "
             "or a buffer too short for the sample";
    case E_OUTOFMEMORY:
      return "the request is too large: the server cannot hold or send that many samples";
    case E_ACCESSDENIED:
      return "the server runs as another user";
    case E_SERVER_UNAVAILABLE:
      return "the server cannot be reached: no session bus, or it could not be started";
    default:
      return "an unknown result";
  }
}

}  // namespace marquel
