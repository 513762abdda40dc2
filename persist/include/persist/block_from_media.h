// Reading a program's data block out of a media file.
//
// In a program stream the block travels as the payload of the server's own packets
// (stream id 0xFA); in a transport stream as the payload of one private PID. Either way
// the payload is split, in order, into the 26-byte header and then as many bytes as the
// header gives for the tag-id, length and data streams; each part's CRC is checked as
// soon as the part is complete. On success the parts go into the program's four
// serialisation buffers (see tags/block_program.h), ready for LoadProgramBlock.
#pragma once

#include <cstdint>

#include "platform/files.h"
#include "tags/mq_one_program.h"

namespace marquel {

// Bytes fed to the decoder per step (the file is read in blocks of many of them).
constexpr int32_t kMediaBlockReadChunk = 2324;
// The stream id of the server's own packets in a program stream.
constexpr int32_t kMQDataStreamId = 0xFA;

// Reads the block from a program-stream file: from `start` on, the file is fed in chunks
// of kMediaBlockReadChunk bytes through the system decoder (MPEG-1 for format codes 1 and
// 3, MPEG-2 otherwise), which hands out the payload of the 0xFA packets. `session` is the
// number of the log lines. Logs, when logging is on:
//   "MarquelOneFile: [%d]Check header crc failed while read from mpeg file",
//   "MarquelOneFile: [%d]Check tag id crc failed", "MarquelOneFile: [%d]Check length crc
//   failed", then "[%d] load file failed"; or "[%d] load from file success".
// A bad data-stream CRC, a failed seek or read, or a file that ends before the block does
// also fail with "[%d] load file failed". Returns 1, or 0 (the buffers are then left
// as they were).
int32_t ReadBlockFromProgramStream(MQOneProgram& program, FileHandle file, int32_t format,
                                   int64_t start, int32_t session);

// Reads the block from a transport-stream file: from `start` on, units of `packet_size`
// bytes (188, 192 or 204) are fed through the transport-stream reader with `pid`
// selected, whose collected payload (each packet's payload less its pointer field) is
// the block. Logs as above, except that the header line is
// "MarquelOneFile: [%d]Check header crc failed" and the end lines are
// "[%d] read from file failed" and "[%d] read from file success". Returns 1 or 0.
int32_t ReadBlockFromTransportStream(MQOneProgram& program, FileHandle file, int32_t packet_size,
                                     int64_t start, uint32_t pid, int32_t session);

}  // namespace marquel
