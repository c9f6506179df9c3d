// The simulated phone's shell: the package list and the process table the PC greps for the app,
// with the app present or absent as the options say, so that both answers can be tested.
#include <cstdio>
#include <sstream>
#include <vector>

#include "AdbDevice.h"

namespace lumo::phonesim {
namespace {

std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  std::string word;
  while (in >> word) {
    // The phone's shell removes quotes; the PC sends none, but a developer typing may.
    if (word.size() >= 2 && (word.front() == '\'' || word.front() == '"') && word.back() == word.front())
      word = word.substr(1, word.size() - 2);
    words.push_back(word);
  }
  return words;
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t start = 0;
  for (;;) {
    const size_t at = text.find(separator, start);
    parts.push_back(text.substr(start, at == std::string::npos ? std::string::npos : at - start));
    if (at == std::string::npos) return parts;
    start = at + 1;
  }
}

// Nothing else on the phone may carry the app's keyword, or "not installed" and "not running"
// could not be told apart from the PC's side.
const char* const kOtherThirdParty[] = {"com.example.notes", "org.example.reader"};
const char* const kSystemPackages[] = {"android", "com.android.shell", "com.android.settings", "com.android.systemui"};

bool PackageList(const std::vector<std::string>& args, const PhoneSimOptions& o, DeviceShellResult& r) {
  // args: "list" "package(s)" [flags] [filter]
  if (args.size() < 2 || args[0] != "list" || (args[1] != "package" && args[1] != "packages")) return false;
  bool thirdParty = false, system = false;
  std::string filter;
  for (size_t i = 2; i < args.size(); ++i) {
    if (args[i] == "-3") thirdParty = true;
    else if (args[i] == "-s") system = true;
    else if (args[i][0] == '-') continue;  // listing details the PC never asks for
    else filter = args[i];
  }
  std::vector<std::string> names;
  if (!system) {
    if (o.appInstalled) names.push_back(o.appPackage);
    names.insert(names.end(), std::begin(kOtherThirdParty), std::end(kOtherThirdParty));
  }
  if (!thirdParty) names.insert(names.end(), std::begin(kSystemPackages), std::end(kSystemPackages));
  for (const std::string& name : names)
    if (name.find(filter) != std::string::npos) r.out += "package:" + name + "\n";
  return true;
}

std::string ProcessTable(const PhoneSimOptions& o) {
  struct Row {
    const char* user;
    int pid, ppid;
    const char* name;
  };
  std::vector<Row> rows = {{"root", 1, 0, "init"},
                           {"root", 574, 1, "zygote64"},
                           {"system", 612, 574, "system_server"},
                           {"u0_a61", 1423, 574, "com.android.systemui"},
                           {"u0_a97", 2210, 574, "com.example.notes"}};
  if (o.appInstalled && o.appRunning) rows.push_back({"u0_a142", 3112, 574, o.appPackage.c_str()});
  rows.push_back({"shell", 4501, 4487, "ps"});
  std::string table = "USER           PID  PPID     VSZ    RSS WCHAN            ADDR S NAME\n";
  char line[256];
  for (const Row& row : rows) {
    std::snprintf(line, sizeof line, "%-10s %7d %5d %7d %6d %-16s %4d %c %.120s\n", row.user, row.pid, row.ppid,
                  65524 + row.pid * 3, 8912 + row.pid, "SyS_epoll_wait", 0, row.pid == 4501 ? 'R' : 'S', row.name);
    table += line;
  }
  return table;
}

bool ParseShellService(const std::string& service, bool& v2, std::string& command) {
  if (service.compare(0, 5, "shell") != 0 || service.size() < 6 || (service[5] != ':' && service[5] != ',')) return false;
  const size_t colon = service.find(':');
  if (colon == std::string::npos) return false;
  // Options before the colon: "v2", "TERM=...", "raw" or "pty"; only the protocol matters here.
  const std::string options = "," + service.substr(6, colon > 6 ? colon - 6 : 0) + ",";
  v2 = service[5] == ',' && options.find(",v2,") != std::string::npos;
  command = service.substr(colon + 1);
  return true;
}

std::string ShellPacket(uint8_t id, const std::string& data) {
  std::string p(5, '\0');
  p[0] = static_cast<char>(id);
  for (int b = 0; b < 4; ++b) p[1 + b] = static_cast<char>(static_cast<uint32_t>(data.size()) >> (8 * b));
  return p + data;
}

}  // namespace

DeviceShellResult RunDeviceShell(const std::string& commandLine, const PhoneSimOptions& options) {
  DeviceShellResult r;
  const std::vector<std::string> stages = Split(commandLine, '|');
  const std::vector<std::string> first = Words(stages[0]);
  if (first.empty()) {
    r.err = "lumo-phonesim: no interactive shell on this phone\n";
    r.exitCode = 1;
    return r;
  }
  const std::vector<std::string> args(first.begin() + 1, first.end());
  bool known = false;
  if (first[0] == "pm") {
    known = PackageList(args, options, r);
    if (!known) {
      r.err = "pm: unknown command\n";
      r.exitCode = 1;
      return r;
    }
  } else if (first[0] == "ps") {
    r.out = ProcessTable(options);
    known = true;
  }
  if (!known) {
    r.err = "/system/bin/sh: " + first[0] + ": inaccessible or not found\n";
    r.exitCode = 127;
    return r;
  }
  for (size_t i = 1; i < stages.size(); ++i) {
    const std::vector<std::string> filter = Words(stages[i]);
    if (filter.empty() || filter[0] != "grep") {
      r.out.clear();
      r.err = "/system/bin/sh: " + (filter.empty() ? std::string("syntax error: '|' unexpected") : filter[0] + ": inaccessible or not found") + "\n";
      r.exitCode = filter.empty() ? 1 : 127;
      return r;
    }
    if (filter.size() != 2) {
      r.out.clear();
      r.err = "usage: grep PATTERN (this phone's grep matches one plain word)\n";
      r.exitCode = 2;
      return r;
    }
    // A plain substring: the PC greps for a word, never for an expression.
    std::string kept;
    for (const std::string& line : Split(r.out, '\n'))
      if (!line.empty() && line.find(filter[1]) != std::string::npos) kept += line + "\n";
    r.out = kept;
    r.exitCode = kept.empty() ? 1 : 0;
  }
  return r;
}

bool AnswerShellService(const std::string& service, const PhoneSimOptions& options, std::string& answer) {
  bool v2 = false;
  std::string command;
  if (!ParseShellService(service, v2, command)) return false;
  const DeviceShellResult r = RunDeviceShell(command, options);
  if (!v2) {
    answer = r.out + r.err;  // the old protocol: one stream, no exit code
    return true;
  }
  answer.clear();
  if (!r.out.empty()) answer += ShellPacket(1, r.out);
  if (!r.err.empty()) answer += ShellPacket(2, r.err);
  answer += ShellPacket(3, std::string(1, static_cast<char>(r.exitCode)));
  return true;
}

}  // namespace lumo::phonesim
