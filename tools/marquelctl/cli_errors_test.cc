// marquelctl's command line as a user meets it without a server: the version, the help's
// units and exit codes, mistyped commands, and errors in CSV and script input that name
// their line. All of these are found before the server is asked.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "ctl_test_util.h"
#include "marquel/version.h"
#include "testsupport/fresh_home.h"

namespace marquel {
namespace {

using ctltest::Ctl;
using Result = ctltest::CtlRun;

TEST(CliErrors, VersionPrintsTheProjectVersion) {
  Result r = Ctl({"--version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("marquelctl ") + MARQUEL_VERSION + "\n");
}

TEST(CliErrors, HelpStatesTheTimeUnitAndTheExitCodes) {
  Result r = Ctl({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("ticks of 100 ns"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("0 done, 1 not found or refused, 2 usage"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("3 server unreachable"), std::string::npos) << r.out;
  for (const char* sub : {"get", "put", "delete", "shift", "copy", "file"}) {
    r = Ctl({sub, "--help"});
    EXPECT_NE(r.out.find("--time-format"), std::string::npos) << sub << ": " << r.out;
    EXPECT_NE(r.out.find("ticks of 100 ns"), std::string::npos) << sub << ": " << r.out;
  }
}

TEST(CliErrors, AMistypedCommandSuggestsTheNearestOne) {
  Result r = Ctl({"stauts"});
  EXPECT_EQ(r.status, 2);
  EXPECT_NE(r.err.find("did you mean status?"), std::string::npos) << r.err;
  r = Ctl({"frobnicate"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err.find("did you mean"), std::string::npos) << r.err;
}

// A media file for commands that check their input before they open it.
std::string Clip() {
  const std::string media = test::TestPath("clip.mpg");
  std::ofstream(media) << "x";
  return media;
}

// Runs marquelctl (standard input from stdin_path when given) and expects a usage error
// whose message holds `part`.
void ExpectUsageError(const std::vector<std::string>& args, const std::string& part,
                      const std::string& stdin_path = "") {
  Result r = Ctl(args, "", stdin_path);
  EXPECT_EQ(r.status, 2) << r.err;
  EXPECT_NE(r.err.find(part), std::string::npos) << r.err;
}

TEST(CliErrors, ACsvErrorNamesItsLine) {
  const std::string csv = test::TestPath("bad.csv");
  std::ofstream(csv) << "time,value\n10,1\n# note\n1:60,2\n";
  ExpectUsageError({"put", Clip(), "--tag", "40", "--csv", csv},
                   csv + ":4: '1:60' has seconds beyond 59");
  std::ofstream(csv) << "time,value\n10,1\n20,300\n";
  ExpectUsageError({"put", Clip(), "--tag", "40", "--csv", csv},
                   "line 3: tag 40 holds 8-bit values");
}

TEST(CliErrors, AScriptFromStandardInputNamesTheLineOfItsError) {
  const std::string script = test::TestPath("ops.txt");
  std::ofstream(script) << "# ops\nput 40 10=1\n\nget 40 1:60 2s\n";
  ExpectUsageError({"file", Clip(), "--script", "-"}, "file: -:4: get: expected", script);
  std::ofstream(script) << "put 40 10=1\n";
  ExpectUsageError({"file", Clip(), "--script", script, "--", "put", "40", "1=256"},
                   "put: tag 40 holds 8-bit values");
}

TEST(CliErrors, ABadTimeOrNumberIsAUsageErrorAndNoHresult) {
  const std::string media = Clip();
  for (const std::vector<std::string>& args :
       std::vector<std::vector<std::string>>{{"get", media, "--tag", "40", "--from", "10.5"},
                                             {"get", media, "--tag", "0x28"},
                                             {"shift", media, "--by", "99999999999999999999"},
                                             {"delete", media, "--from", "1:60", "--to", "-1"},
                                             {"put", media, "--tag", "40", "--sample", "1=0x10"}}) {
    Result r = Ctl(args);
    EXPECT_EQ(r.status, 2) << args[0] << " " << args[3] << ": " << r.err;
    EXPECT_EQ(r.err.find("0x8"), std::string::npos) << r.err;
  }
}

TEST(CliErrors, ASampleFileOrScriptBeyondTheInputCeilingIsRefused) {
  const std::string big = test::TestPath("big.csv");
  std::ofstream(big).close();
  std::filesystem::resize_file(big, (size_t{64} << 20) + 1);  // sparse: no disk used
  ExpectUsageError({"put", Clip(), "--tag", "40", "--csv", big}, "more than 67108864 bytes");
  ExpectUsageError({"file", Clip(), "--script", big}, "more than 67108864 bytes");
}

}  // namespace
}  // namespace marquel
