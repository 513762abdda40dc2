// marquel_test_client: a second client process for the integration tests.
//
//   marquel_test_client open FILE   opens FILE, prints "<hr> <handle>", then holds the
//                                   file until its standard input ends
//   marquel_test_client count       prints "<hr> <count>" of QueryFileCount
#include <unistd.h>

#include <cstdio>
#include <string>

#include "marquel/marquel_client.h"

int main(int argc, char** argv) {
  using namespace marquel;
  if (argc < 2) return 2;
  std::string error;
  auto client = CreateMarquelClient(&error);
  if (!client) {
    fprintf(stderr, "%s\n", error.c_str());
    return 3;
  }
  std::string command = argv[1];
  if (command == "open" && argc == 3) {
    int32_t handle = -1;
    HRESULT hr = client->InitialFile(argv[2], 0, 0, &handle);
    printf("%d %d\n", hr, handle);
    fflush(stdout);
    char c;
    while (read(0, &c, 1) > 0) {
    }
    return 0;
  }
  if (command == "count") {
    int32_t count = -1;
    HRESULT hr = client->QueryFileCount(&count);
    printf("%d %d\n", hr, count);
    return 0;
  }
  return 2;
}
