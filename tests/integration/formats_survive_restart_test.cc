// Every container this machine's ffmpeg can make keeps its tags through close and a
// restart of the server, and so does a file of no known format: a client tags the file
// and closes it, the server stops, and a new server gives every sample back. The clips are
// made here with ffmpeg (one second, 128x96), so each case shows the format detection
// gives the file, the cache its tags went to, and the tags coming back.
#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "bus_fixture.h"
#include "sample_set.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

struct Clip {
  const char* file;
  const char* ffmpeg;  // output options, split at spaces
  uint32_t code;       // what detection answers
  const char* cache;   // the cache kind the close writes
};

std::vector<std::string> Words(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string w; in >> w;) words.push_back(w);
  return words;
}

// Runs ffmpeg (found on PATH) with `args`; its exit status, its output in *output.
int RunFfmpeg(const std::vector<std::string>& args, std::string* output) {
  std::vector<std::string> argv = {"/bin/sh", "-c", "exec ffmpeg \"$@\"", "ffmpeg"};
  argv.insert(argv.end(), args.begin(), args.end());
  return RunProgram(argv, output);
}

// Makes one second of test picture at `path`. "" when made, else why not.
std::string MakeClip(const std::string& path, const std::string& options) {
  std::string output;
  if (RunFfmpeg({"-version"}, &output) != 0) return "ffmpeg is not installed";
  std::vector<std::string> args = {
      "-nostdin", "-hide_banner", "-loglevel",
      "error",    "-y",           "-f",
      "lavfi",    "-i",           "testsrc=duration=1:size=128x96:rate=25"};
  for (const std::string& w : Words(options)) args.push_back(w);
  args.push_back(path);
  if (RunFfmpeg(args, &output) != 0 || std::filesystem::file_size(path) == 0) {
    return "this ffmpeg cannot make " + path + ": " + output;
  }
  return "";
}

nlohmann::json CtlJson(const std::vector<std::string>& args) {
  std::vector<std::string> argv = {MarquelctlPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  std::string out;
  EXPECT_EQ(RunProgram(argv, &out), 0) << out;
  return nlohmann::json::parse(out, nullptr, false);
}

class TaggedFile : public BusTest {
 protected:
  // Tags `path` through the server and closes it; then stops the server and checks that
  // the one cache entry is of `cache` kind.
  void TagCloseAndStop(const std::string& path, const std::string& cache) {
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    Insert(*client_, h, 0, 9);
    ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
    client_.reset();
    StopServer();
    ASSERT_EQ(ServerPid(), -1);
    ExpectOneEntry(cache);
  }
  void ExpectOneEntry(const std::string& cache) {
    nlohmann::json entries = CtlJson({"cache", "list", "--json"})["entries"];
    ASSERT_EQ(entries.size(), 1u) << entries.dump();
    EXPECT_EQ(entries[0]["kind"], cache);
  }
  // Starts a new server, opens `path` and expects every sample back.
  void ExpectTagsBack(const std::string& path) {
    if (!client_) client_ = Connect();
    int32_t h = -1;
    ASSERT_EQ(client_->InitialFile(path.c_str(), 0, 0, &h), S_OK);
    int32_t existed = 0;
    ASSERT_EQ(client_->QueryMQExisted(h, &existed), S_OK);
    EXPECT_EQ(existed, 1);
    ExpectSamples(*client_, h, 0, 9);
    ASSERT_EQ(client_->CloseFile(h, 1), S_OK);
  }
};

class EveryFormat : public TaggedFile, public testing::WithParamInterface<Clip> {};

TEST_P(EveryFormat, TagsComeBackAfterCloseAndRestart) {
  const Clip& clip = GetParam();
  const std::string path = TestPath(clip.file);
  const std::string why_not = MakeClip(path, clip.ffmpeg);
  if (!why_not.empty()) GTEST_SKIP() << why_not;
  nlohmann::json detected = CtlJson({"detect", path, "--json"});
  EXPECT_EQ(detected["code"], clip.code) << detected.dump();

  TagCloseAndStop(path, clip.cache);
  ExpectTagsBack(path);
}

INSTANTIATE_TEST_SUITE_P(
    Ffmpeg, EveryFormat,
    testing::Values(Clip{"mpeg1.mpg", "-c:v mpeg1video -f mpeg", 1, "TempCache"},
                    Clip{"mpeg2.mpg", "-c:v mpeg2video -f vob", 2, "TempCache"},
                    Clip{"clip.ts", "-c:v mpeg2video -f mpegts", 10, "TSCache"},
                    Clip{"clip.avi", "-c:v mpeg4", 8, "AVICache"},
                    Clip{"clip.mp4", "-c:v mpeg4", 5, "OtherCache"},
                    Clip{"clip.mov", "-c:v mpeg4", 14, "OtherCache"},
                    Clip{"clip.wmv", "-c:v wmv2", 12, "OtherCache"},
                    Clip{"clip.mkv", "-c:v mpeg4", 17, "OtherCache"},
                    Clip{"clip.webm", "-c:v libvpx", 18, "OtherCache"},
                    Clip{"clip.flv", "-c:v flv", 19, "OtherCache"},
                    Clip{"clip.m4v", "-c:v mpeg4 -f mp4", 20, "OtherCache"},
                    Clip{"clip.3gp", "-c:v h263", 21, "OtherCache"},
                    Clip{"clip.ogg", "-c:v libtheora", 22, "OtherCache"},
                    Clip{"clip.h264", "-c:v libx264 -f h264", 23, "OtherCache"},
                    Clip{"clip.m2v", "-c:v mpeg2video -f mpeg2video", 25, "OtherCache"}),
    [](const testing::TestParamInfo<Clip>& info) {
      std::string name = info.param.file;
      name[name.find('.')] = '_';
      return name;
    });

// A file detection does not know keeps its tags in the temp cache, and
// the open reads them back.
TEST_F(TaggedFile, UnknownFormatGetsItsTagsBack) {
  const std::string path = MediaFile("notes.bin", 9000);
  EXPECT_EQ(CtlJson({"detect", path, "--json"})["code"], 0);
  TagCloseAndStop(path, "TempCache");
  ExpectTagsBack(path);
}

// As a new user tries it: marquelctl puts a sample into a file detection does not know,
// and the next marquelctl run (a new open) gets it back, also after a restart.
TEST_F(TaggedFile, MarquelctlGetsBackWhatItPutIntoAnUnknownFormat) {
  const std::string path = MediaFile("clip.mkv", 4000);
  const std::vector<std::string> put = {MarquelctlPath(), "put", path, "--tag", "16",
                                        "--sample",       "0=1"};
  const std::vector<std::string> get = {MarquelctlPath(), "get", path, "--tag", "16"};
  std::string out;
  ASSERT_EQ(RunProgram(put, &out), 0) << out;
  EXPECT_EQ(out, "inserted 1\n");
  ASSERT_EQ(RunProgram(get, &out), 0);
  EXPECT_EQ(out, "0\t1\n");
  client_.reset();
  StopServer();
  ASSERT_EQ(RunProgram(get, &out), 0);
  EXPECT_EQ(out, "0\t1\n");
}

// A file not made yet takes the client's format code; a number that is no format is
// refused at the open instead of losing the tags at the close.
TEST_F(TaggedFile, FileNotYetMadeNeedsAFormatCode) {
  const std::string path = TestPath("coming.mkv");
  int32_t h = -1;
  EXPECT_EQ(client_->InitialFile(path.c_str(), 99, 0, &h), E_FAIL);
  EXPECT_EQ(h, -1);
  ASSERT_EQ(client_->InitialFile(path.c_str(), 17, 0, &h), S_OK);
  Insert(*client_, h, 0, 9);
  // The file exists by the close, but does not look like Matroska.
  MediaFile("coming.mkv", 3000);
  ASSERT_EQ(client_->CloseFile(h, 0), S_OK);
  client_.reset();
  StopServer();
  ExpectOneEntry("OtherCache");
  ExpectTagsBack(path);
}

// A file that was format 0 when it was tagged (as Matroska was before it had a code) and
// is recognised now finds its temp-cache entry; the next close moves it to the other cache.
TEST_F(TaggedFile, FormatRecognisedSinceItsTagsWereCachedKeepsThem) {
  const std::string path = MediaFile("old.mkv", 9000);
  EXPECT_EQ(CtlJson({"detect", path, "--json"})["code"], 0);
  TagCloseAndStop(path, "TempCache");
  // Now the file has a Matroska header (an EBML header without a DocType).
  {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.write("\x1A\x45\xDF\xA3\x83\x42\x86\x80", 8);
  }
  EXPECT_EQ(CtlJson({"detect", path, "--json"})["code"], 17);
  ExpectTagsBack(path);
  client_.reset();
  StopServer();
  ExpectOneEntry("OtherCache");
  ExpectTagsBack(path);
}

}  // namespace
}  // namespace marquel::test
