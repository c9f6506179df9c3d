// The default host services: ini files, the timer thread, the log throttle and the logger's
// format handling.
#include <gtest/gtest.h>
#include <json/json.h>

#include <atomic>
#include <cstdarg>
#include <fstream>
#include <sstream>

#include "host/DefaultHostServices.h"
#include "host/IniFile.h"
#include "host/Log.h"
#include "host/TimerService.h"
#include "support/FakeHost.h"
#include "support/SimClock.h"
#include "support/TempDir.h"

namespace {

std::string Format(const char* format, ...) {
  va_list args;
  va_start(args, format);
  std::string s = lumo::FormatLogLine(format, args);
  va_end(args);
  return s;
}

TEST(LogFormat, WindowsSixtyFourBitSpecifiersWorkEverywhere) {
  EXPECT_EQ(Format("a %I64u b %I64d c %I64x", 18446744073709551615ull, -5ll, 255ull),
            "a 18446744073709551615 b -5 c ff");
  EXPECT_EQ(Format("100%% %I64u%%", 7ull), "100% 7%");
  EXPECT_EQ(Format("%%I64u"), "%I64u");  // an escaped percent stays text
  std::string big(100000, 'x');
  EXPECT_EQ(Format("%s", big.c_str()).size(), lumo::kMaxLogLine);
}

TEST(LogFormat, LinesReachTheInstalledHost) {
  lumo::test::FakeHost host;
  Log(LOG_ERROR, "[t] %s %d", "x", 3);
  ASSERT_EQ(host.Logs().size(), 1u);
  EXPECT_EQ(host.Logs()[0].level, 4);
  EXPECT_EQ(host.Logs()[0].text, "[t] x 3");
}

TEST(Ini, FindAndUpdateBehaveLikeProfileFiles) {
  std::string text = "; comment\r\n[DEBUG]\r\nprotocalVersion = 1001\r\n\r\n[SECT_VIDEO]\r\nsaveH264=1\r\n";
  std::string v;
  EXPECT_TRUE(lumo::IniFile::Find(text, "debug", "PROTOCALVERSION", v));
  EXPECT_EQ(v, "1001");
  EXPECT_FALSE(lumo::IniFile::Find(text, "DEBUG", "saveH264", v));

  std::string updated = lumo::IniFile::Update(text, "SECT_VIDEO", "saveH264", "0");
  EXPECT_TRUE(lumo::IniFile::Find(updated, "SECT_VIDEO", "saveH264", v));
  EXPECT_EQ(v, "0");
  updated = lumo::IniFile::Update(updated, "DEBUG", "supportProtocalList", "1001,1002");
  updated = lumo::IniFile::Update(updated, "PHONECAM", "localLockBokeh", "-100");
  EXPECT_TRUE(lumo::IniFile::Find(updated, "DEBUG", "supportProtocalList", v));
  EXPECT_EQ(v, "1001,1002");
  EXPECT_TRUE(lumo::IniFile::Find(updated, "DEBUG", "protocalVersion", v));
  EXPECT_EQ(v, "1001");
  EXPECT_TRUE(lumo::IniFile::Find(updated, "PHONECAM", "localLockBokeh", v));
  EXPECT_EQ(v, "-100");
  EXPECT_NE(updated.find("; comment"), std::string::npos);
  // The new key stays inside its section, before the next one.
  EXPECT_LT(updated.find("supportProtocalList"), updated.find("[SECT_VIDEO]"));
}

TEST(Ini, IntegersParseLikeTheProfileReader) {
  EXPECT_EQ(lumo::IniFile::ParseInt("-100"), -100);
  EXPECT_EQ(lumo::IniFile::ParseInt("12abc"), 12);
  EXPECT_EQ(lumo::IniFile::ParseInt("abc"), 0);
  EXPECT_EQ(lumo::IniFile::ParseInt("99999999999999999999"), 2147483647);
}

TEST(DefaultHost, ConfigurationLivesInTheProductFolder) {
  lumo::test::ScopedAppData appData;
  lumo::DefaultHostServices host;
  host.SetLogToStderr(false);
  EXPECT_EQ(host.GetConfigInt("phoneVideoCfg.ini", "SECT_VIDEO", "saveH264", -1), -1);
  EXPECT_TRUE(host.SetConfigString("phoneVideoCfg.ini", "SECT_VIDEO", "saveH264", "0"));
  EXPECT_TRUE(host.SetConfigString("phoneVideoCfg.ini", "DEBUG", "supportProtocalList", "1001,1002"));
  EXPECT_EQ(host.GetConfigInt("phoneVideoCfg.ini", "SECT_VIDEO", "saveH264", -1), 0);
  EXPECT_EQ(host.GetConfigString("phoneVideoCfg.ini", "DEBUG", "supportProtocalList", "", 4), "1001");
  std::ifstream file(appData.path + "/Lumoapp/phoneVideoCfg.ini");
  std::stringstream content;
  content << file.rdbuf();
  EXPECT_NE(content.str().find("[SECT_VIDEO]\nsaveH264=0\n"), std::string::npos);

  host.WriteLog(2, "hello log");
  std::ifstream log(appData.path + "/Lumoapp/LumoHqPhoneCamera.log");
  std::stringstream logText;
  logText << log.rdbuf();
  EXPECT_NE(logText.str().find("L2 hello log\n"), std::string::npos);

  std::string seen;
  host.SetTelemetryCallback([&](const std::string& line) { seen = line; });
  Json::Value record;
  record["p1"] = 2;
  host.ReportTelemetry("phoneVideo", "delay", record);
  EXPECT_NE(seen.find("\"event\":\"delay\""), std::string::npos);
  EXPECT_NE(seen.find("\"p1\":2"), std::string::npos);
}

TEST(DefaultHost, PrintThrottlePerKey) {
  lumo::test::ScopedSimClock sim;
  lumo::DefaultHostServices host;
  EXPECT_FALSE(host.IsPrintTooFast(2000, "k"));
  EXPECT_TRUE(host.IsPrintTooFast(2000, "k"));
  EXPECT_FALSE(host.IsPrintTooFast(2000, "other"));
  sim.clock.AdvanceMs(1999);
  EXPECT_TRUE(host.IsPrintTooFast(2000, "k"));
  sim.clock.AdvanceMs(1);
  EXPECT_FALSE(host.IsPrintTooFast(2000, "k"));
}

class CountingTimerCB : public TMR::ITimerCB {
 public:
  void OnTimer(int id) override {
    std::lock_guard<std::mutex> guard(mutex);
    ticks.push_back(id);
    if (killSelf && timer) timer->KillTimer(id);
    cv.notify_all();
  }
  bool WaitTicks(size_t n) {
    std::unique_lock<std::mutex> lock(mutex);
    return cv.wait_for(lock, std::chrono::seconds(5), [&] { return ticks.size() >= n; });
  }
  size_t Count() {
    std::lock_guard<std::mutex> guard(mutex);
    return ticks.size();
  }
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<int> ticks;
  bool killSelf = false;
  TMR::ITimer* timer = nullptr;
};

TEST(DefaultHost, TimerTicksOnTheLibraryClockAndCanBeKilledFromItsCallback) {
  lumo::test::ScopedSimClock sim;
  CountingTimerCB cb;
  {
    lumo::ThreadTimer timer(&cb);
    cb.timer = &timer;
    ASSERT_TRUE(timer.SetTimer(131, 1000));
    ASSERT_TRUE(sim.clock.WaitForSleepers(1));
    sim.clock.AdvanceMs(999);
    ASSERT_TRUE(sim.clock.WaitForSleepers(1));
    EXPECT_EQ(cb.Count(), 0u);
    sim.clock.AdvanceMs(1);
    ASSERT_TRUE(cb.WaitTicks(1));
    ASSERT_TRUE(sim.clock.WaitForSleepers(1));
    sim.clock.AdvanceMs(1000);
    ASSERT_TRUE(cb.WaitTicks(2));
    cb.killSelf = true;
    ASSERT_TRUE(sim.clock.WaitForSleepers(1));
    sim.clock.AdvanceMs(1000);
    ASSERT_TRUE(cb.WaitTicks(3));
    // Killed from inside its own callback: no timer is left, so the thread has ended.
    sim.clock.AdvanceMs(5000);
    EXPECT_EQ(cb.Count(), 3u);
    // The next timer starts a thread again.
    cb.killSelf = false;
    ASSERT_TRUE(timer.SetTimer(132, 500));
    ASSERT_TRUE(sim.clock.WaitForSleepers(1));
    sim.clock.AdvanceMs(500);
    ASSERT_TRUE(cb.WaitTicks(4));
  }  // the destructor stops the thread
  EXPECT_EQ(cb.ticks, std::vector<int>({131, 131, 131, 132}));
}

}  // namespace
