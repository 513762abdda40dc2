// marquelctl reg: reads and writes the store, like reg.exe.
//
//   reg set    [--machine] KEY NAME (--dword N | --string S | --binary HEX)
//   reg get    [--machine] KEY [NAME] [--json]
//   reg delete [--machine] KEY [NAME]
//   reg list   [--machine] KEY [--json]
//
// KEY is a key path with "\" between components, under the current user's root unless
// --machine is given. A leading root name ("HKCU\", "HKLM\", "HKCR\" or their long forms)
// is also understood. NAME "" is the key's default value.
#include <cctype>
#include <cstdint>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "command.h"
#include "platform/access_reg.h"
#include "platform/text.h"

namespace marquel::ctl {
namespace {

struct RegValue {
  std::string name;
  uint32_t type = REG_NONE;
  std::vector<uint8_t> data;
};

// How a value is shown: "dword" for a 4-byte number, "string" for text, "binary" for
// everything else.
const char* KindOf(const RegValue& v) {
  if (v.type == REG_DWORD && v.data.size() == 4) return "dword";
  if (v.type == REG_SZ || v.type == REG_EXPAND_SZ) return "string";
  return "binary";
}

std::string Hex(const std::vector<uint8_t>& data) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (uint8_t b : data) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 15]);
  }
  return out;
}

uint32_t Dword(const std::vector<uint8_t>& data) {
  return data[0] | (data[1] << 8) | (data[2] << 16) | (static_cast<uint32_t>(data[3]) << 24);
}

// Text up to its terminator.
std::string Text(const std::vector<uint8_t>& data) {
  std::string text(data.begin(), data.end());
  return text.substr(0, text.find('\0'));
}

std::string ValueText(const RegValue& v) {
  const std::string kind = KindOf(v);
  if (kind == "dword") return std::to_string(Dword(v.data));
  return kind == "string" ? Text(v.data) : Hex(v.data);
}

std::string ValueLine(const RegValue& v) {
  return (v.name.empty() ? std::string("(default)") : v.name) + "\t" + KindOf(v) + "\t" +
         ValueText(v);
}

nlohmann::json ValueToJson(const RegValue& v) {
  nlohmann::json out = {{"name", v.name}, {"type", KindOf(v)}};
  if (std::string(KindOf(v)) == "dword") {
    out["value"] = Dword(v.data);
  } else {
    out["value"] = ValueText(v);
  }
  return out;
}

// Text that is not valid UTF-8 is shown with replacement characters rather than failing.
std::string DumpJson(const nlohmann::json& j) {
  return j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

// Decimal or 0x-hex, from -2147483648 to 4294967295 (negative numbers as two's complement).
bool ParseDword(const std::string& text, uint32_t* out) {
  if (text.empty()) return false;
  const bool negative = text[0] == '-';
  std::string digits = negative ? text.substr(1) : text;
  int base = 10;
  if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
    digits = digits.substr(2);
    base = 16;
  }
  if (digits.empty() || digits.size() > 10) return false;
  uint64_t value = 0;
  for (char c : digits) {
    int d = std::isdigit(static_cast<unsigned char>(c)) ? c - '0'
            : (base == 16 && std::isxdigit(static_cast<unsigned char>(c)))
                ? (AsciiToLower(c) - 'a' + 10)
                : -1;
    if (d < 0) return false;
    value = value * base + static_cast<uint64_t>(d);
  }
  if (negative ? value > 0x80000000ull : value > 0xFFFFFFFFull) return false;
  *out = negative ? static_cast<uint32_t>(0x100000000ull - value) : static_cast<uint32_t>(value);
  return true;
}

bool ParseHex(const std::string& text, std::vector<uint8_t>* out) {
  if (text.size() % 2 != 0) return false;
  out->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    const std::string pair = text.substr(i, 2);
    if (!std::isxdigit(static_cast<unsigned char>(pair[0])) ||
        !std::isxdigit(static_cast<unsigned char>(pair[1]))) {
      return false;
    }
    out->push_back(static_cast<uint8_t>(std::stoul(pair, nullptr, 16)));
  }
  return true;
}

struct RegArgs {
  bool machine = false;
  std::string key;
  std::string name;
  CLI::Option* nameOption = nullptr;
  std::string dword, text, binary;
  CLI::Option* dwordOption = nullptr;
  CLI::Option* textOption = nullptr;
  CLI::Option* binaryOption = nullptr;
  bool json = false;

  bool HasName() const { return nameOption != nullptr && nameOption->count() > 0; }
};

struct Target {
  RegRoot root;
  std::string path;
};

int Usage(const std::string& message) {
  std::cerr << "marquelctl reg: " << message << "\n";
  return kExitUsage;
}

// The exit status and message for a store call that failed.
int Failed(const std::string& what) {
  const uint32_t code = StoreLastError();
  if (code == ERROR_FILE_NOT_FOUND) {
    std::cerr << "marquelctl reg: " << what << " does not exist\n";
    return kExitNotFound;
  }
  if (code == ERROR_INVALID_PARAMETER || code == ERROR_BAD_PATHNAME) {
    return Usage(StoreLastMessage());
  }
  std::cerr << "marquelctl reg: " << what << ": " << StoreLastMessage() << "\n";
  return kExitRefused;
}

// Splits off a leading root name. False when it contradicts --machine.
bool ResolveTarget(const RegArgs& args, Target* target) {
  static const struct {
    const char* name;
    RegRoot root;
  } kRoots[] = {{"HKCU", HKEY_CURRENT_USER},  {"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
                {"HKLM", HKEY_LOCAL_MACHINE}, {"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
                {"HKCR", HKEY_CLASSES_ROOT},  {"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT}};
  target->root = args.machine ? HKEY_LOCAL_MACHINE : HKEY_CURRENT_USER;
  target->path = args.key;
  const std::string first = args.key.substr(0, args.key.find('\\'));
  for (const auto& r : kRoots) {
    if (!EqualsIgnoreCase(first, r.name)) continue;
    if (args.machine && r.root != HKEY_LOCAL_MACHINE) return false;
    target->root = r.root;
    target->path = args.key.size() > first.size() ? args.key.substr(first.size() + 1) : "";
    break;
  }
  return true;
}

std::vector<RegValue> ReadAllValues(AccessReg& reg) {
  std::vector<RegValue> values;
  std::vector<char> name(65536);
  for (uint32_t i = 0; reg.EnumValue(i, name.data(), static_cast<uint32_t>(name.size())); ++i) {
    RegValue v;
    v.name = name.data();
    if (reg.QueryValue(v.name.c_str(), &v.type, &v.data)) values.push_back(std::move(v));
  }
  return values;
}

// The name as the store spells it (names match without regard to case).
std::string StoredName(AccessReg& reg, const std::string& name) {
  std::vector<char> buffer(65536);
  for (uint32_t i = 0; reg.EnumValue(i, buffer.data(), static_cast<uint32_t>(buffer.size())); ++i) {
    if (EqualsIgnoreCase(buffer.data(), name)) return buffer.data();
  }
  return name;
}

void PrintValues(const std::vector<RegValue>& values, bool json) {
  if (json) {
    nlohmann::json out = nlohmann::json::array();
    for (const RegValue& v : values) out.push_back(ValueToJson(v));
    std::cout << DumpJson(out) << "\n";
    return;
  }
  for (const RegValue& v : values) std::cout << ValueLine(v) << "\n";
}

int RunSet(const RegArgs& args) {
  Target t;
  if (!ResolveTarget(args, &t)) return Usage("--machine contradicts the root named in KEY");
  std::vector<uint8_t> bytes;
  uint32_t type = REG_BINARY;
  if (args.dwordOption->count() > 0) {
    uint32_t number = 0;
    if (!ParseDword(args.dword, &number)) return Usage("--dword takes a 32-bit number");
    type = REG_DWORD;
    bytes.resize(4);
    for (int i = 0; i < 4; ++i) bytes[i] = static_cast<uint8_t>(number >> (8 * i));
  } else if (args.textOption->count() > 0) {
    type = REG_SZ;
    bytes.assign(args.text.begin(), args.text.end());
    bytes.push_back(0);
  } else if (!ParseHex(args.binary, &bytes)) {
    return Usage("--binary takes an even number of hex digits");
  }
  AccessReg reg;
  if (!reg.CreateKey(t.root, t.path.c_str())) return Failed("key " + args.key);
  if (!reg.Open(t.root, t.path.c_str())) return Failed("key " + args.key);
  if (!reg.SetValue(args.name.c_str(), bytes.data(), type, static_cast<uint32_t>(bytes.size()))) {
    return Failed("value " + args.name);
  }
  return kExitOk;
}

int RunGet(const RegArgs& args) {
  Target t;
  if (!ResolveTarget(args, &t)) return Usage("--machine contradicts the root named in KEY");
  AccessReg reg(t.root, t.path.c_str());
  if (!reg.IsOpen()) return Failed("key " + args.key);
  if (!args.HasName()) {
    PrintValues(ReadAllValues(reg), args.json);
    return kExitOk;
  }
  RegValue v;
  v.name = StoredName(reg, args.name);
  if (!reg.QueryValue(v.name.c_str(), &v.type, &v.data)) return Failed("value " + args.name);
  std::cout << (args.json ? DumpJson(ValueToJson(v)) : ValueText(v)) << "\n";
  return kExitOk;
}

int RunDelete(const RegArgs& args) {
  Target t;
  if (!ResolveTarget(args, &t)) return Usage("--machine contradicts the root named in KEY");
  AccessReg reg;
  if (!args.HasName()) {
    return reg.DeleteKey(t.root, t.path.c_str()) ? kExitOk : Failed("key " + args.key);
  }
  if (!reg.Open(t.root, t.path.c_str())) return Failed("key " + args.key);
  return reg.DeleteValue(args.name.c_str()) ? kExitOk : Failed("value " + args.name);
}

int RunList(const RegArgs& args) {
  Target t;
  if (!ResolveTarget(args, &t)) return Usage("--machine contradicts the root named in KEY");
  AccessReg reg(t.root, t.path.c_str());
  if (!reg.IsOpen()) return Failed("key " + args.key);
  std::vector<std::string> keys;
  char name[1024];
  for (uint32_t i = 0; reg.EnumKey(i, name, sizeof name); ++i) keys.emplace_back(name);
  std::vector<RegValue> values = ReadAllValues(reg);
  if (args.json) {
    nlohmann::json out = {{"keys", keys}, {"values", nlohmann::json::array()}};
    for (const RegValue& v : values) out["values"].push_back(ValueToJson(v));
    std::cout << DumpJson(out) << "\n";
    return kExitOk;
  }
  for (const std::string& k : keys) std::cout << k << "\\\n";
  PrintValues(values, false);
  return kExitOk;
}

// Adds one reg subcommand with the options all of them share; its arguments live as long
// as the action that may use them.
CLI::App* AddSub(CLI::App& reg, const char* name, const char* help,
                 const std::shared_ptr<RegArgs>& args) {
  CLI::App* sub = reg.add_subcommand(name, help);
  sub->add_flag("--machine", args->machine, "use the machine-wide store");
  sub->add_option("KEY", args->key, "key path, components separated by \\")->required();
  return sub;
}

void AddSet(CLI::App& reg, Action& run) {
  auto args = std::make_shared<RegArgs>();
  CLI::App* sub = AddSub(reg, "set", "create or replace a value (and its key)", args);
  sub->add_option("NAME", args->name, "value name (\"\" for the default value)")->required();
  CLI::Option_group* kind = sub->add_option_group("value", "the value to write");
  args->dwordOption = kind->add_option("--dword", args->dword, "32-bit number (decimal or 0x..)");
  args->textOption = kind->add_option("--string", args->text, "text");
  args->binaryOption = kind->add_option("--binary", args->binary, "bytes as hex digits");
  kind->require_option(1);
  sub->callback([&run, args] { run = [args] { return RunSet(*args); }; });
}

void AddGet(CLI::App& reg, Action& run) {
  auto args = std::make_shared<RegArgs>();
  CLI::App* sub = AddSub(reg, "get", "print one value, or all values of the key", args);
  args->nameOption = sub->add_option("NAME", args->name, "value name");
  sub->add_flag("--json", args->json, "print JSON");
  sub->callback([&run, args] { run = [args] { return RunGet(*args); }; });
}

void AddDelete(CLI::App& reg, Action& run) {
  auto args = std::make_shared<RegArgs>();
  CLI::App* sub = AddSub(reg, "delete", "delete a value, or the key itself", args);
  args->nameOption = sub->add_option("NAME", args->name, "value name");
  sub->callback([&run, args] { run = [args] { return RunDelete(*args); }; });
}

void AddList(CLI::App& reg, Action& run) {
  auto args = std::make_shared<RegArgs>();
  CLI::App* sub = AddSub(reg, "list", "print the sub-keys and values of a key", args);
  sub->add_flag("--json", args->json, "print JSON");
  sub->callback([&run, args] { run = [args] { return RunList(*args); }; });
}

}  // namespace

void AddRegCommand(CLI::App& app, Action& run) {
  CLI::App* reg = app.add_subcommand("reg", "read and write values of the store");
  reg->require_subcommand(1);
  AddSet(*reg, run);
  AddGet(*reg, run);
  AddDelete(*reg, run);
  AddList(*reg, run);
}

}  // namespace marquel::ctl
