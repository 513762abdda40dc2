// A program's data block in its temporary-file form: the 26-byte header, the tag-id
// stream, the length stream and the data stream, one after the other. Cache files hold
// exactly this.
#pragma once

#include <cstdint>

#include "platform/files.h"
#include "tags/mq_one_program.h"

namespace marquel {

// Writes the block held in the program's four buffers (see block_program.h) to `file`
// at its current position, a chunk at a time (spilled streams are read back from their
// files). Returns 1; 0 when a buffer is missing ("error! process program but no data!" is
// logged); -1 when a write fails or a spilled stream cannot be read back.
int32_t WriteProgramBlockToFile(MQOneProgram& program, FileHandle file);

// Reads a block in its temporary-file form from `file`, at its current position, into
// the program's four buffers:
//   - the header, whose CRC must match, else "MQOneProgram: [%d] Read from temp file
//     check crc header failed";
//   - the tag-id stream, CRC checked ("... check crc tagid failed");
//   - the length stream, CRC checked ("... check crc length failed");
//   - the data stream, whose CRC is left to LoadProgramBlock.
// The number in the lines is the program's number; they are written when logging is on.
// Returns 1; on a CRC failure 0 with the four buffers released. A short read (the file
// ends before the header or a stream does) returns 0 without a message and also
// releases the buffers, so that no half-read block stays behind. Nothing is allocated
// for a stream before the file is known to hold it.
int32_t ReadProgramBlockFromTempFile(MQOneProgram& program, FileHandle file);

}  // namespace marquel
