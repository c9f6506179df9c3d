// The live picture in a window (SDL2), for `connect --preview`. Everything here runs on the
// thread that opened it: the render loop, which is the program's main thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace phonecam {

class Preview {
 public:
  // Null with `error` set when there is no display (no DISPLAY, no video driver).
  static std::unique_ptr<Preview> Open(std::string& error);
  ~Preview();
  Preview(const Preview&) = delete;
  Preview& operator=(const Preview&) = delete;

  // Shows one tightly packed I420 picture. The window is created at the first picture, at its
  // size (halved until it fits the screen), in the top left corner, and keeps that size.
  void Show(const uint8_t* i420, int width, int height);
  void SetTitle(const std::string& title);
  // The window was closed (or Escape or q pressed).
  bool CloseRequested();

 private:
  Preview() = default;
  struct Impl;
  std::unique_ptr<Impl> m_impl;
};

}  // namespace phonecam
