// marquelctl programs, mv and wait: a transport stream's programs from the command line,
// a rename that keeps the tags, and a wait that says only what is true.
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "marquelctl_fixture.h"
#include "testsupport/fresh_home.h"

namespace marquel::test {
namespace {

using Pairs = std::vector<std::pair<int64_t, int32_t>>;

// The tags of tag 16, program 0, of a file opened through the test's client.
Pairs Tag16(IMarquelClient& client, const std::string& path) {
  int32_t h = -1;
  if (client.InitialFile(path.c_str(), 0, 0, &h) != S_OK) return {};
  Pairs pairs = PlainPairs(client, h, 16);
  client.CloseFile(h, 1);
  return pairs;
}

// Runs marquelctl with its standard output and error on a terminal; what it wrote there.
std::string OnATerminal(const std::vector<std::string>& args) {
  int master = -1;
  pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
  if (pid == 0) {
    std::vector<char*> argv = {const_cast<char*>(MarquelctlPath())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(MarquelctlPath(), argv.data());
    _exit(127);
  }
  std::string text;
  char buffer[4096];
  for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;) text.append(buffer, n);
  close(master);
  waitpid(pid, nullptr, 0);
  return text;
}

TEST_F(Marquelctl, ProgramsListsATransportStreamsProgramsAndProgramFindsThem) {
  const std::string ts = CopyTestMedia("ts2prog.ts", "two.ts");
  nlohmann::json j = CtlJson({"programs", ts, "--json"});
  ASSERT_EQ(j["programs"].size(), 2u) << j;
  EXPECT_NE(j["programs"][0]["pmt_pid"], j["programs"][1]["pmt_pid"]);
  EXPECT_FALSE(j["programs"][1]["streams"].empty());
  std::string out;
  ASSERT_EQ(Ctl({"programs", ts}, &out), 0);
  EXPECT_EQ(out.rfind("0\tpmt " + j["programs"][0]["pmt_pid"].dump() + "\t", 0), 0u) << out;
  EXPECT_NE(out.find("\n1\tpmt " + j["programs"][1]["pmt_pid"].dump() + "\t"), std::string::npos)
      << out;
  ASSERT_EQ(Ctl({"put", ts, "--program", "1", "--tag", "40", "--sample", "100=7"}, &out), 0) << out;
  j = CtlJson({"get", ts, "--program", "1", "--tag", "40", "--json"});
  EXPECT_EQ(j["program"], 1);
  EXPECT_EQ(j["samples"], nlohmann::json::parse(R"([{"time": 100, "value": 7}])"));
  j = CtlJson({"get", ts, "--tag", "40", "--json"});
  EXPECT_TRUE(j["samples"].empty()) << "program 0 holds nothing";
  EXPECT_EQ(Ctl({"get", ts, "--program", "5", "--tag", "40"}, &out), 1);
  EXPECT_NE(out.find(ts + " has no program 5 (its programs are 0 to 1)"), std::string::npos) << out;
  // Elsewhere a program beyond 0 would take samples and keep none: it is refused.
  EXPECT_EQ(Ctl({"put", file_, "--program", "1", "--tag", "40", "--sample", "1=1"}, &out), 1);
  EXPECT_NE(out.find("not a transport stream"), std::string::npos) << out;
}

TEST_F(Marquelctl, MvCarriesTheTagsToTheNewNameEvenWithAMovePending) {
  const std::string old_name = TaggedCopy(*client_, "mpeg2ps.mpg", "before.mpg");
  int32_t done = 1;
  ASSERT_EQ(client_->IsWriteToFileDone(old_name.c_str(), &done), S_OK);
  EXPECT_EQ(done, 0) << "the move into the file is pending";
  const std::string new_name = TestPath("after.mpg");
  std::string out;
  ASSERT_EQ(Ctl({"mv", old_name, new_name}, &out), 0) << out;
  EXPECT_EQ(out, "renamed " + old_name + " to " + new_name + "; its tags went with it\n");
  EXPECT_EQ(Tag16(*client_, new_name), (Pairs{{100000, 7}, {500000, 9}}));
  ASSERT_EQ(client_->IsWriteToFileDone(new_name.c_str(), &done), S_OK);
  EXPECT_EQ(done, 0) << "the pending move follows the file to its new name";
  const std::string taken = CopyTestMedia("mpeg2ps.mpg", "taken.mpg");
  EXPECT_EQ(Ctl({"mv", new_name, taken}, &out), 1);
  EXPECT_NE(out.find(taken + " exists; use --force"), std::string::npos) << out;
  ASSERT_EQ(Ctl({"mv", new_name, taken, "--force"}, &out), 0) << out;
  EXPECT_EQ(Tag16(*client_, taken), (Pairs{{100000, 7}, {500000, 9}}));
}

TEST_F(Marquelctl, MvWithoutAServerRenamesNothing) {
  const std::string old_name = CopyTestMedia("mpeg2ps.mpg", "stays.mpg");
  client_.reset();
  StopServer();
  std::filesystem::remove(TestDir() + "/data/dbus-1/services/com.halvern.Marquel64.service");
  const std::string new_name = TestPath("moved.mpg");
  std::string out;
  EXPECT_EQ(Ctl({"mv", old_name, new_name}, &out), 3) << out;
  EXPECT_TRUE(std::filesystem::exists(old_name)) << "the tags could not have followed";
  EXPECT_FALSE(std::filesystem::exists(new_name));
}

TEST_F(Marquelctl, MvSaysSoWhenTheTagsCannotFollowAndHowToGetThemBack) {
  const std::string old_name = TaggedCopy(*client_, "mpeg2ps.mpg", "short.mpg");
  // A name too long for a cache record: the rename works, the server's cannot.
  const std::string long_name = TestPath(std::string(300 - TestDir().size(), 'x') + ".mpg");
  std::string out;
  EXPECT_EQ(Ctl({"mv", old_name, long_name}, &out), 1);
  EXPECT_NE(out.find("they stay under the old name"), std::string::npos) << out;
  EXPECT_NE(out.find("marquelctl mv " + long_name + " " + old_name), std::string::npos) << out;
  ASSERT_EQ(Ctl({"mv", long_name, old_name}, &out), 0) << out;
  EXPECT_EQ(Tag16(*client_, old_name), (Pairs{{100000, 7}, {500000, 9}}));
}

TEST_F(Marquelctl, WaitOnAFileThatDoesNotExistFailsAtOnce) {
  const std::string missing = TestPath("gone.mpg");
  std::string out;
  EXPECT_EQ(Ctl({"wait", missing, "--timeout", "30"}, &out), 1);
  EXPECT_EQ(out, "marquelctl: no such file: " + missing + "\n");
}

TEST_F(Marquelctl, WaitDoesNotSayWrittenForTagsKeptOnlyInACache) {
  const std::string kept = CopyTestMedia("mpeg2ps.mpg", "kept.mpg");
  int32_t h = -1;
  ASSERT_EQ(client_->InitialFile(kept.c_str(), 0, 0, &h), S_OK);
  ASSERT_EQ(client_->InsertDataOne2(h, 0, 16, 100000, 7), S_OK);
  ASSERT_EQ(client_->CloseFile(h, 1), S_OK);  // kept in the cache, no move
  std::string out;
  EXPECT_EQ(Ctl({"wait", kept}, &out), 1);
  EXPECT_EQ(out.find("written"), std::string::npos) << out;
  EXPECT_NE(out.find("kept in the cache"), std::string::npos) << out;
}

TEST_F(Marquelctl, WaitDrawsAProgressLineOnATerminalAndPlainLinesElsewhere) {
  const std::string pending = TaggedCopy(*client_, "mpeg2ps.mpg", "pending.mpg");
  const std::vector<std::string> args = {"wait", pending, "--timeout", "0.5", "--interval", "50"};
  std::string out;
  EXPECT_EQ(Ctl(args, &out), 1);
  EXPECT_EQ(out.find('\r'), std::string::npos) << out;
  EXPECT_NE(out.find("waiting for " + pending + ": still pending\n"), std::string::npos) << out;
  EXPECT_EQ(out.find("still pending\n"), out.rfind("still pending\n")) << "one line per change";
  EXPECT_NE(out.find("waiting for " + pending + ": timed out after"), std::string::npos) << out;
  const std::string drawn = OnATerminal(args);
  EXPECT_NE(drawn.find("\rwaiting for " + pending + ": still pending, 0 s"), std::string::npos)
      << drawn;
}

}  // namespace
}  // namespace marquel::test
