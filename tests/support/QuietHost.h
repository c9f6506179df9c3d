// Host services for benchmarks and fuzzing: the built-in defaults, but with configuration kept
// in memory and no log output, so that a run neither touches the user's files nor measures the
// logger.
#pragma once

#include <string>

#include "host/DefaultHostServices.h"

namespace lumo::test {

class QuietHost : public DefaultHostServices {
 public:
  QuietHost() { SetLogToStderr(false); }
  void WriteLog(int, const std::string&) override {}
  int GetConfigInt(const std::string&, const std::string&, const std::string&, int def) override { return def; }
  std::string GetConfigString(const std::string&, const std::string&, const std::string&, const std::string& def,
                              size_t) override {
    return def;
  }
  bool SetConfigString(const std::string&, const std::string&, const std::string&, const std::string&) override {
    return true;
  }
  void ReportTelemetry(const std::string&, const std::string&, const Json::Value&) override {}
};

}  // namespace lumo::test
