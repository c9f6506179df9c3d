#include "platform/command_line.h"

namespace lumo {

std::vector<std::string> SplitCommandLine(const std::string& commandLine) {
  std::vector<std::string> args;
  std::string current;
  bool inQuotes = false;
  bool haveArg = false;
  for (char c : commandLine) {
    if (c == '"') {
      inQuotes = !inQuotes;
      haveArg = true;
    } else if ((c == ' ' || c == '\t') && !inQuotes) {
      if (haveArg) args.push_back(current);
      current.clear();
      haveArg = false;
    } else {
      current.push_back(c);
      haveArg = true;
    }
  }
  if (haveArg) args.push_back(current);
  return args;
}

}  // namespace lumo
