// A program of a Marquel user: it tags a video file with value 7 at one second and reads
// the tag back.
#include <marquel/marquel_client.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
  if (argc != 2) return std::fprintf(stderr, "usage: %s VIDEO\n", argv[0]), 2;
  std::string error;
  std::unique_ptr<marquel::IMarquelClient> client = marquel::CreateMarquelClient(&error);
  if (!client) return std::fprintf(stderr, "no session bus: %s\n", error.c_str()), 3;
  int32_t handle = -1, value = 0;
  marquel::HRESULT hr = client->InitialFile(argv[1], 0, 0, &handle);
  if (marquel::Succeeded(hr)) hr = client->InsertDataOne(handle, 40, 10000000, 7);
  if (marquel::Succeeded(hr)) hr = client->GetDataOne(handle, 40, 10000000, &value);
  if (marquel::Succeeded(hr)) hr = client->CloseFile(handle, 0);
  if (marquel::Failed(hr)) return std::fprintf(stderr, "%s\n", marquel::HresultText(hr)), 1;
  std::printf("tag 40 at 1 s: %d\n", value);
  return 0;
}
