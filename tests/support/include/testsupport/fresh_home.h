// A fresh, private home for each test.
//
// The test main installs a listener that, before every test, creates an empty folder and
// points HOME, XDG_DATA_HOME, XDG_RUNTIME_DIR, XDG_CONFIG_HOME, XDG_CACHE_HOME, TMPDIR and
// MARQUEL_MACHINE_STORE into it. Code under test reads those variables each time it needs
// a path, so every test starts with an empty store and empty folders.
#pragma once

#include <string>

namespace marquel::test {

// The folder made for the running test (no trailing slash).
const std::string& TestDir();

// TestDir() + "/" + name.
std::string TestPath(const std::string& name);

// Points the environment at a new empty folder below the run's root. Called by the
// listener before each test; a test may call it again to simulate a new user.
void MakeFreshHome(const std::string& label);

}  // namespace marquel::test
