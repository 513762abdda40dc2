// The shell example of docs/dbus.md, run as it stands against the test's server.
//
// The block between the "shell example" marker comments is run by /bin/sh in the test's
// fresh home, with the built marquel64 and marquelctl first on PATH; the lines of the
// block that start with "# -> " are its expected standard output, in order.
#include <filesystem>
#include <sstream>

#include <stdlib.h>

#include "bus_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

struct ExampleBlock {
  std::string script;
  std::string expected;
};

// The example block of the page, or an empty script when the markers are missing.
ExampleBlock ReadExample(const std::string& page) {
  const std::string text = ReadFile(page);
  const size_t begin = text.find("<!-- shell example: begin -->");
  const size_t end = text.find("<!-- shell example: end -->");
  if (begin == std::string::npos || end == std::string::npos || end < begin) return {};
  const size_t open = text.find("```sh\n", begin);
  const size_t close = text.rfind("```", end);
  if (open == std::string::npos || close <= open) return {};
  ExampleBlock example;
  example.script = text.substr(open + 6, close - open - 6);
  std::istringstream lines(example.script);
  for (std::string line; std::getline(lines, line);)
    if (line.rfind("# -> ", 0) == 0) example.expected += line.substr(5) + "\n";
  return example;
}

class DbusShellExample : public BusTest {};

TEST_F(DbusShellExample, TheShellExampleOfTheBusPageGivesTheOutputItShows) {
  const ExampleBlock example = ReadExample(MARQUEL_DOCS_DIR "/dbus.md");
  ASSERT_FALSE(example.script.empty()) << "no shell example between the markers";
  ASSERT_NE(example.expected.find("GetDataOne 0 77"), std::string::npos);
  const std::string home = getenv("HOME");
  std::filesystem::create_directories(home + "/videos");
  std::filesystem::copy_file(MediaFile("clip.mpg"), home + "/videos/clip.mpg");

  const std::string old_path = getenv("PATH") ? getenv("PATH") : "";
  const std::string path = std::filesystem::path(Marquel64Path()).parent_path().string() + ":" +
                           std::filesystem::path(MarquelctlPath()).parent_path().string() +
                           ":/usr/bin:/bin";
  setenv("PATH", path.c_str(), 1);
  std::string out;
  const int status = RunProgram({"/bin/sh", "-c", "set -e\n" + example.script}, &out);
  setenv("PATH", old_path.c_str(), 1);
  EXPECT_EQ(status, 0) << out;
  EXPECT_EQ(out, example.expected);
}

}  // namespace
}  // namespace marquel::test
