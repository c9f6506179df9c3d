// libimobiledevice scripted for tests: phones by UDID, names, failures, and usbmux connections
// whose phone side the test plays (bytes to deliver, time-outs, a close). Installing it replaces
// the system's libimobiledevice for the library until it is destroyed.
#pragma once

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "device/IosDeviceApi.h"

namespace lumo::test {

class FakeIosApi : public IosDeviceApi {
 public:
  std::vector<std::string> udids;
  std::map<std::string, std::string> names;  // absent: lockdown answers with an error
  std::set<std::string> unopenable;
  int listError = 0;
  int connectError = 0;
  std::set<idevice_t> open;
  int listsOut = 0, clientsOut = 0;
  std::vector<uint16_t> connectPorts;

  FakeIosApi() { SetIosDeviceApi(this); }
  ~FakeIosApi() override { SetIosDeviceApi(nullptr); }

  // The phone side of the one connection: what it sends, and what it was sent.
  void Deliver(const std::string& bytes) { Push({bytes, 0}); }
  void DeliverTimeout() { Push({"", -7}); }
  void ClosePhoneSide() { Push({"", -2}); }
  std::string Sent() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_sent;
  }
  // Waits (real time, bounded) until at least `n` bytes were sent to the phone.
  bool WaitSent(size_t n) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, std::chrono::seconds(10), [&] { return m_sent.size() >= n; });
  }
  int disconnects = 0;

  bool Available(std::string&) override { return true; }
  int GetDeviceList(char*** list, int* count) override {
    if (listError) return listError;
    *list = static_cast<char**>(std::calloc(udids.size() + 1, sizeof(char*)));
    for (size_t i = 0; i < udids.size(); ++i) (*list)[i] = strdup(udids[i].c_str());
    *count = static_cast<int>(udids.size());
    ++listsOut;
    return 0;
  }
  int DeviceListFree(char** list) override {
    for (char** p = list; *p; ++p) std::free(*p);
    std::free(list);
    --listsOut;
    return 0;
  }
  int NewDevice(idevice_t* device, const char* udid) override {
    if (unopenable.count(udid)) return -3;
    *device = reinterpret_cast<idevice_t>(new std::string(udid));
    open.insert(*device);
    return 0;
  }
  int FreeDevice(idevice_t device) override {
    EXPECT_EQ(open.erase(device), 1u) << "freed twice or never opened";
    delete reinterpret_cast<std::string*>(device);
    return 0;
  }
  int LockdownClientNew(idevice_t device, lockdownd_client_t* client) override {
    *client = reinterpret_cast<lockdownd_client_t>(device);
    ++clientsOut;
    return 0;
  }
  int LockdownGetDeviceName(lockdownd_client_t client, char** name) override {
    auto it = names.find(*reinterpret_cast<std::string*>(client));
    if (it == names.end()) return -4;
    *name = strdup(it->second.c_str());
    return 0;
  }
  int LockdownClientFree(lockdownd_client_t) override {
    --clientsOut;
    return 0;
  }
  void FreeText(char* text) override { std::free(text); }

  int Connect(idevice_t, uint16_t port, idevice_connection_t* connection) override {
    connectPorts.push_back(port);
    if (connectError) return connectError;
    std::lock_guard<std::mutex> guard(m_mutex);
    m_shut = false;
    *connection = reinterpret_cast<idevice_connection_t>(&m_connectionTag);
    return 0;
  }
  int Disconnect(idevice_connection_t) override {
    std::lock_guard<std::mutex> guard(m_mutex);
    ++disconnects;
    return 0;
  }
  int Send(idevice_connection_t, const char* data, uint32_t len, uint32_t* sent) override {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_sent.append(data, len);
    *sent = len;
    m_cv.notify_all();
    return 0;
  }
  // Hands out what the phone delivered, at most `len` at a time; blocks (real time) until
  // something is there or the connection is shut down.
  int ReceiveTimeout(idevice_connection_t, char* data, uint32_t len, uint32_t* got, unsigned int) override {
    std::unique_lock<std::mutex> lock(m_mutex);
    *got = 0;
    m_cv.wait(lock, [&] { return m_shut || !m_pending.empty(); });
    if (m_pending.empty()) return -2;  // shut down
    Item& item = m_pending.front();
    if (item.err != 0) {
      int err = item.err;
      m_pending.pop_front();
      return err;
    }
    const uint32_t n = static_cast<uint32_t>(std::min<size_t>(len, item.bytes.size()));
    std::memcpy(data, item.bytes.data(), n);
    item.bytes.erase(0, n);
    if (item.bytes.empty()) m_pending.pop_front();
    *got = n;
    return 0;
  }
  int Receive(idevice_connection_t c, char* data, uint32_t len, uint32_t* got) override {
    return ReceiveTimeout(c, data, len, got, 0);
  }
  void Shutdown(idevice_connection_t) override {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_shut = true;
    m_cv.notify_all();
  }

 private:
  struct Item {
    std::string bytes;
    int err;
  };
  void Push(Item item) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_pending.push_back(std::move(item));
    m_cv.notify_all();
  }
  std::mutex m_mutex;
  std::condition_variable m_cv;
  std::deque<Item> m_pending;
  std::string m_sent;
  bool m_shut = false;
  int m_connectionTag = 0;
};

}  // namespace lumo::test
