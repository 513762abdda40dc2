// Includes the public client headers; compiled under several C++ standards to check that
// an older standard meets the headers' own message, not errors deep inside them.
#include <marquel/hresult.h>
#include <marquel/marquel_client.h>

int main() {
  return marquel::Failed(marquel::S_OK) ? 1 : 0;
}
