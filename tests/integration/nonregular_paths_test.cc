// A FIFO, a device or a folder given where a media file belongs: InitialFile,
// InitialFile2, QueryOrgFileSizeAndMTime and CacheRename answer at once with a failure,
// and another client is answered meanwhile. Before, a FIFO froze the server for everyone.
#include <sys/stat.h>

#include <chrono>
#include <functional>
#include <future>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using Call = std::function<HRESULT(IMarquelClient&, const std::string&)>;
using std::chrono::steady_clock;

constexpr auto kPrompt = std::chrono::seconds(5);

class NonRegularPaths : public BusTest {
 protected:
  // The paths that are not regular files: a FIFO without a writer, two devices, a folder.
  std::vector<std::string> Paths() {
    const std::string fifo = TestPath("pipe.ts");
    if (!FileExists(fifo)) {
      EXPECT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    }
    return {fifo, "/dev/zero", "/dev/null", TestDir()};
  }

  static bool FileExists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
  }

  // Runs `call` on each path from one client while a second client asks the server for
  // its file count; both must be answered promptly, and the call must give `want`.
  void ExpectPromptAnswers(const Call& call, HRESULT want) {
    auto caller = Connect();
    auto other = Connect();
    int32_t memory = 0;
    ASSERT_EQ(other->QueryAllMemory(&memory), S_OK);  // the server runs
    for (const std::string& path : Paths()) {
      auto answer = std::async(std::launch::async, [&] { return call(*caller, path); });
      const auto asked = steady_clock::now();
      EXPECT_EQ(other->QueryAllMemory(&memory), S_OK) << path;
      EXPECT_LT(steady_clock::now() - asked, kPrompt) << "another client waited on " << path;
      ASSERT_EQ(answer.wait_for(kPrompt), std::future_status::ready) << path;
      EXPECT_EQ(answer.get(), want) << path;
      int32_t count = -1;
      EXPECT_EQ(other->QueryFileCount(&count), E_FAIL) << "no slot is kept for " << path;
    }
  }
};

TEST_F(NonRegularPaths, InitialFileRefusesWhatIsNotARegularFile) {
  ExpectPromptAnswers(
      [](IMarquelClient& c, const std::string& path) {
        int32_t h = 7;
        HRESULT hr = c.InitialFile(path.c_str(), 0, 0, &h);
        EXPECT_EQ(h, -1) << path;
        HRESULT typed = c.InitialFile(path.c_str(), 10, 0, &h);  // a type named by the client
        return hr == typed ? hr : S_FALSE;
      },
      E_FAIL);
}

TEST_F(NonRegularPaths, InitialFile2RefusesWhatIsNotARegularFile) {
  ExpectPromptAnswers(
      [](IMarquelClient& c, const std::string& path) {
        int32_t h = 7;
        const int32_t tags[1] = {19};
        HRESULT hr = c.InitialFile2(path.c_str(), 1, 0, 1, tags, 1, 0, -1, &h);
        EXPECT_EQ(h, -1) << path;
        return hr;
      },
      E_FAIL);
}

TEST_F(NonRegularPaths, QueryOrgFileSizeAndMTimeRefusesWhatIsNotARegularFile) {
  ExpectPromptAnswers(
      [](IMarquelClient& c, const std::string& path) {
        uint64_t size = 0, mtime = 0;
        return c.QueryOrgFileSizeAndMTime(path.c_str(), &size, &mtime);
      },
      E_FAIL);
}

TEST_F(NonRegularPaths, CacheRenameRefusesANewNameThatIsNotARegularFile) {
  const std::string media = MediaFile("clip.mpg", 20000);
  ExpectPromptAnswers(
      [&media](IMarquelClient& c, const std::string& path) {
        return c.CacheRename(media.c_str(), path.c_str(), 0);
      },
      E_FAIL);
  // As the old name it has no entry to carry over: a success, at once.
  ExpectPromptAnswers(
      [&media](IMarquelClient& c, const std::string& path) {
        return c.CacheRename(path.c_str(), media.c_str(), 0);
      },
      S_OK);
}

}  // namespace
}  // namespace marquel::test
