// Splitting a command line into arguments the way a Windows program reads its own: blanks
// separate, double quotes group (and are removed), runs of blanks count as one.
#pragma once

#include <string>
#include <vector>

namespace lumo {
std::vector<std::string> SplitCommandLine(const std::string& commandLine);
}  // namespace lumo
