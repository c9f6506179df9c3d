#include "Preview.h"

#include <SDL.h>

#include "Recording.h"

namespace phonecam {

struct Preview::Impl {
  SDL_Window* window = nullptr;
  SDL_Renderer* renderer = nullptr;
  SDL_Texture* texture = nullptr;
  int width = 0, height = 0;  // of the texture
  bool closed = false;
  std::string title = "lumo-phonecam";
};

std::unique_ptr<Preview> Preview::Open(std::string& error) {
  // Ctrl-C is the program's own (it ends the session cleanly), not a window event of SDL's.
  SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "1");
  // SDL's own renderer on the window's plain surface: no GPU driver is loaded (whose threads and
  // buffers would outlive the window), and converting one picture a frame costs the CPU a few
  // milliseconds.
  SDL_SetHint(SDL_HINT_RENDER_DRIVER, "software");
  SDL_SetHint(SDL_HINT_FRAMEBUFFER_ACCELERATION, "0");
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) {
    error = std::string("no window can be opened: ") + SDL_GetError();
    return nullptr;
  }
  std::unique_ptr<Preview> preview(new Preview());
  preview->m_impl = std::make_unique<Impl>();
  return preview;
}

Preview::~Preview() {
  if (!m_impl) return;
  if (m_impl->texture) SDL_DestroyTexture(m_impl->texture);
  if (m_impl->renderer) SDL_DestroyRenderer(m_impl->renderer);
  if (m_impl->window) SDL_DestroyWindow(m_impl->window);
  // SDL's video subsystem has threads of its own; they end here.
  SDL_QuitSubSystem(SDL_INIT_VIDEO);
  SDL_Quit();
}

void Preview::Show(const uint8_t* i420, int width, int height) {
  Impl& p = *m_impl;
  if (p.window == nullptr) {
    int w = width, h = height;
    SDL_Rect bounds;
    if (SDL_GetDisplayUsableBounds(0, &bounds) == 0)
      while (w > bounds.w || h > bounds.h) w /= 2, h /= 2;
    p.window = SDL_CreateWindow(p.title.c_str(), 0, 0, w, h, SDL_WINDOW_SHOWN | SDL_WINDOW_RESIZABLE);
    if (p.window == nullptr) return;
    p.renderer = SDL_CreateRenderer(p.window, -1, SDL_RENDERER_SOFTWARE);
    if (p.renderer == nullptr) return;
  }
  if (p.renderer == nullptr) return;
  // A texture's chroma rounds odd sizes up; ours rounds down, so an odd last column or row is
  // left out instead of read past the picture.
  const I420Layout layout(width, height);
  width = layout.chromaWidth * 2, height = layout.chromaHeight * 2;
  if (width == 0 || height == 0) return;
  if (p.texture == nullptr || width != p.width || height != p.height) {
    if (p.texture) SDL_DestroyTexture(p.texture);
    p.texture = SDL_CreateTexture(p.renderer, SDL_PIXELFORMAT_IYUV, SDL_TEXTUREACCESS_STREAMING, width, height);
    p.width = width, p.height = height;
    if (p.texture == nullptr) return;
  }
  const uint8_t* u = i420 + layout.LumaBytes();
  const uint8_t* v = u + layout.ChromaBytes();
  SDL_UpdateYUVTexture(p.texture, nullptr, i420, layout.width, u, layout.chromaWidth, v, layout.chromaWidth);
  SDL_RenderClear(p.renderer);
  SDL_RenderCopy(p.renderer, p.texture, nullptr, nullptr);
  SDL_RenderPresent(p.renderer);
}

void Preview::SetTitle(const std::string& title) {
  m_impl->title = title;
  if (m_impl->window) SDL_SetWindowTitle(m_impl->window, title.c_str());
}

bool Preview::CloseRequested() {
  SDL_Event event;
  while (SDL_PollEvent(&event)) {
    if (event.type == SDL_QUIT) m_impl->closed = true;
    if (event.type == SDL_KEYDOWN && (event.key.keysym.sym == SDLK_ESCAPE || event.key.keysym.sym == SDLK_q))
      m_impl->closed = true;
  }
  return m_impl->closed;
}

}  // namespace phonecam
