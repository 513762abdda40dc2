// Direct access to the sd-bus message under an sdbus-c++ message, for the columns of the
// bulk interface: fixed-size arrays go in and out with one copy instead of one library
// call per element.
#pragma once

#include <systemd/sd-bus.h>

#include <sdbus-c++/sdbus-c++.h>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace marquel::host {

// sdbus-c++ 1.2 keeps the sd_bus_message pointer protected; a derived class may name it
// through a pointer to member. No object of this type is ever made.
struct RawMessage : sdbus::Message {
  static sd_bus_message* Of(const sdbus::Message& m) {
    return static_cast<sd_bus_message*>(m.*(&RawMessage::msg_));
  }
};

// Appends an array of `count` fixed-size elements of D-Bus type `type` ('x', 'i', 'y').
inline void AppendArray(sdbus::Message& m, char type, const void* data, size_t bytes) {
  int r = sd_bus_message_append_array(RawMessage::Of(m), type, data, bytes);
  if (r < 0) throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs", "cannot append array");
}

// Reads an array of fixed-size elements; *data points into the message (valid while the
// message lives) and *bytes is its size in bytes.
inline void ReadArray(const sdbus::Message& m, char type, const void** data, size_t* bytes) {
  int r = sd_bus_message_read_array(RawMessage::Of(m), type, data, bytes);
  if (r < 0) throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs", "cannot read array");
}

}  // namespace marquel::host
