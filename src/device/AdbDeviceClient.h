// The per-phone adb handle of the USB transport: every operation runs one adb command line for
// one phone and reads what it printed. It never speaks adb's wire protocol itself.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "device/PhoneDeviceTypes.h"

namespace PHONE {

class IAdbClient {
 public:
  virtual void SetDevice(const std::wstring& adbPath, const AndroidDeviceInfo& device) = 0;
  virtual bool CreateForward(uint32_t localPort, uint32_t remotePort) = 0;
  virtual bool RemoveAllForward() = 0;
  virtual std::vector<AdbForwardItem> ListForward() = 0;
  virtual bool IsPackageInstalled(const std::wstring& name) = 0;
  virtual bool IsProcessRunning(const std::wstring& name) = 0;
  virtual bool Reserved1() = 0;
  virtual bool Reserved2() = 0;

 protected:
  // Owned through a shared pointer that knows the concrete type.
  ~IAdbClient() = default;
};

// Calls come from one thread at a time (the USB transport's); each runs adb to its end.
class AdbDeviceClient : public IAdbClient {
 public:
  AdbDeviceClient() = default;
  virtual ~AdbDeviceClient() = default;

  void SetDevice(const std::wstring& adbPath, const AndroidDeviceInfo& device) override;
  // True when any forward at all is listed afterwards, of this phone or another.
  bool CreateForward(uint32_t localPort, uint32_t remotePort) override;
  bool RemoveAllForward() override;  // always false: callers do not rely on it
  std::vector<AdbForwardItem> ListForward() override;
  // The phone's shell filters with grep; then a case-sensitive substring test here.
  bool IsPackageInstalled(const std::wstring& name) override;
  bool IsProcessRunning(const std::wstring& name) override;
  bool Reserved1() override { return false; }
  bool Reserved2() override { return false; }

  // The command line for `arguments`: path, " -s ", serial as stored, two blanks, arguments.
  // Nothing is quoted and the runs of blanks are kept: adb skips them.
  std::wstring CommandLine(const std::wstring& arguments) const;

 private:
  std::wstring m_adbPath;
  AndroidDeviceInfo m_device;
};

}  // namespace PHONE
