// Compiled with only the include folders that the platform layer may see. The log layer
// sits above it, so with UPWARD defined this must fail to compile; without it, it must
// compile, which shows that the failure comes from the include and nothing else.
#include "platform/crc32.h"
#ifdef UPWARD
#include "log/log.h"
#endif

int main() { return marquel::Crc32Ieee("", 0) == 0 ? 0 : 1; }
