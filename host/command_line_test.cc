// The switches of marquel64's command line.
#include "command_line.h"

#include <gtest/gtest.h>

namespace marquel::host {
namespace {

HostSwitch Parse(std::vector<std::string> args) {
  return ParseSwitch(args);
}

TEST(CommandLine, SwitchesWithDashOrSlashIgnoringCase) {
  EXPECT_EQ(Parse({"-RegServer"}), HostSwitch::kRegServer);
  EXPECT_EQ(Parse({"/regserver"}), HostSwitch::kRegServer);
  EXPECT_EQ(Parse({"-UNREGSERVER"}), HostSwitch::kUnregServer);
  EXPECT_EQ(Parse({"/UnregServer"}), HostSwitch::kUnregServer);
  EXPECT_EQ(Parse({"-service"}), HostSwitch::kService);
  EXPECT_EQ(Parse({"/Service"}), HostSwitch::kService);
}

TEST(CommandLine, ASwitchFollowedByMoreTextMatchesNothing) {
  EXPECT_EQ(Parse({"-RegServer", "now"}), HostSwitch::kNone);
  EXPECT_EQ(Parse({"-RegServerX"}), HostSwitch::kNone);
  EXPECT_EQ(Parse({"-Service", "-x"}), HostSwitch::kNone);
}

TEST(CommandLine, NoSwitch) {
  EXPECT_EQ(Parse({}), HostSwitch::kNone);
  EXPECT_EQ(Parse({"RegServer"}), HostSwitch::kNone);
  EXPECT_EQ(Parse({"-"}), HostSwitch::kNone);
  EXPECT_EQ(Parse({"-Reg", "Server"}), HostSwitch::kNone);
}

// The whole rest of the line is compared at every "-" or "/", so a later switch that ends
// the line decides.
TEST(CommandLine, TheSwitchThatEndsTheLineDecides) {
  EXPECT_EQ(Parse({"-x", "-RegServer"}), HostSwitch::kRegServer);
  EXPECT_EQ(Parse({"--RegServer"}), HostSwitch::kRegServer);
  EXPECT_EQ(Parse({"-Service", "/UnregServer"}), HostSwitch::kUnregServer);
}

TEST(CommandLine, NothingServesAndHelpOrVersionAloneAskForThem) {
  EXPECT_EQ(ParseCommandLine({}), HostAction::kServe);
  EXPECT_EQ(ParseCommandLine({"--help"}), HostAction::kHelp);
  EXPECT_EQ(ParseCommandLine({"/?"}), HostAction::kHelp);
  EXPECT_EQ(ParseCommandLine({"--version"}), HostAction::kVersion);
  EXPECT_EQ(ParseCommandLine({"/service"}), HostAction::kService);
  EXPECT_EQ(ParseCommandLine({"-x", "-RegServer"}), HostAction::kRegServer);
  EXPECT_EQ(ParseCommandLine({"-UnregServer"}), HostAction::kUnregServer);
}

TEST(CommandLine, AnUnknownSwitchOrExtraTextIsAUsageError) {
  EXPECT_EQ(ParseCommandLine({"-Bogus"}), HostAction::kUsageError);
  EXPECT_EQ(ParseCommandLine({"--version", "now"}), HostAction::kUsageError);
  EXPECT_EQ(ParseCommandLine({"-RegServer", "now"}), HostAction::kUsageError);
  EXPECT_EQ(ParseCommandLine({"movie.ts"}), HostAction::kUsageError);
}

}  // namespace
}  // namespace marquel::host
