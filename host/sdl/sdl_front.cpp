// SDL2 front end: the window, 16 ms presentation with the aspect ratio kept,
// keyboard and mouse into the shared queues, the private recreate request.
#include "host/sdl/sdl_front.h"

#include <SDL.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <vector>

#include "host/cp437.h"
#include "host/display.h"
#include "host/platform.h"
#include "host/shell.h"
#include "screen/framebuffer.h"
#include "screen/keyqueue.h"
#include "screen/mouse.h"
#include "screen/present.h"
#include "screen/snapshot.h"

namespace host {

namespace {

std::atomic<SDL_Window*> g_window{nullptr};  // for display_modes() on the interpreter thread

class Sdl final : public Frontend {
 public:
  bool init() {
    SDL_SetHint(SDL_HINT_NO_SIGNAL_HANDLERS, "0");
    if (SDL_Init(SDL_INIT_VIDEO | SDL_INIT_EVENTS | SDL_INIT_TIMER) != 0) return false;
    // Without a display SDL falls back to its off-screen or dummy driver: a
    // window nobody can see or type into. Only a user who asked for one of
    // them by SDL_VIDEODRIVER gets it.
    const char* driver = SDL_GetCurrentVideoDriver();
    const char* asked = SDL_getenv("SDL_VIDEODRIVER");
    if (driver && (!std::strcmp(driver, "offscreen") || !std::strcmp(driver, "dummy")) && !(asked && *asked)) {
      SDL_Quit();
      return false;
    }
    user_event_ = SDL_RegisterEvents(1);
    return user_event_ != static_cast<Uint32>(-1);
  }

  bool create_window() override {
    window_ = SDL_CreateWindow("Tambril BASIC 3.4.1", SDL_WINDOWPOS_UNDEFINED, SDL_WINDOWPOS_UNDEFINED,
                               static_cast<int>(screen::kStartWidth), static_cast<int>(screen::kStartHeight),
                               SDL_WINDOW_HIDDEN | SDL_WINDOW_ALLOW_HIGHDPI);
    if (!window_) return false;
    g_window.store(window_);
    renderer_ = SDL_CreateRenderer(window_, -1, SDL_RENDERER_ACCELERATED);
    if (!renderer_) renderer_ = SDL_CreateRenderer(window_, -1, SDL_RENDERER_SOFTWARE);
    if (!renderer_) return false;
    SDL_SetHint(SDL_HINT_RENDER_SCALE_QUALITY, "0");  // no smoothing
    return true;
  }

  bool create_surfaces() override {
    return screen::create_framebuffer(screen::kStartWidth, screen::kStartHeight) && ensure_texture();
  }

  void show_window() override {
    SDL_ShowWindow(window_);
    SDL_StartTextInput();
  }

  bool start_timer() override {
    timer_ = SDL_AddTimer(16, tick, this);
    return timer_ != 0;
  }
  void stop_timer() override {
    if (timer_) SDL_RemoveTimer(timer_);
    timer_ = 0;
  }

  void release_surfaces() override {
    if (!shell.screenshot.empty()) screen::write_snapshot(shell.screenshot);
    if (texture_) SDL_DestroyTexture(texture_);
    texture_ = nullptr;
  }

  void destroy_window() override {
    g_window.store(nullptr);
    if (renderer_) SDL_DestroyRenderer(renderer_);
    if (window_) SDL_DestroyWindow(window_);
    renderer_ = nullptr;
    window_ = nullptr;
  }

  int run_message_loop() override {
    SDL_Event e;
    while (SDL_WaitEvent(&e)) {
      if (e.type == SDL_QUIT) break;
      if (e.type == user_event_) {
        handle_user(e.user.code, e.user.data1, e.user.data2);
        if (e.user.code == kClose) break;
        continue;
      }
      handle(e);
    }
    // The window's destruction: stop flag, wake, quit.
    request_stop();
    destroy_window();
    SDL_Quit();
    return shell.exit_code.load();
  }

  bool recreate_framebuffer(std::uint32_t w, std::uint32_t h) override {
    std::unique_lock guard(lock_);
    answered_ = false;
    post(kRecreate, reinterpret_cast<void*>(static_cast<std::uintptr_t>(w)), reinterpret_cast<void*>(static_cast<std::uintptr_t>(h)));
    while (!answered_) {
      if (stop_requested()) return false;
      cv_.wait_for(guard, std::chrono::milliseconds(16));
    }
    return answer_;
  }

  void repaint_now() override { post(kPaint, nullptr); }
  void post_close() override { post(kClose, nullptr); }

  bool key_is_down(int host_key) override {
    return host_key >= 0 && host_key < SDL_NUM_SCANCODES && down_[host_key].load();
  }

  bool named_key_down(int key_id) override {
    auto is = [&](SDL_Scancode sc) { return down_[sc].load(); };
    if (key_id >= 'A' && key_id <= 'Z') return is(static_cast<SDL_Scancode>(SDL_SCANCODE_A + (key_id - 'A')));
    // SDL numbers the digit row 1..9 then 0.
    if (key_id == '0') return is(SDL_SCANCODE_0);
    if (key_id >= '1' && key_id <= '9') return is(static_cast<SDL_Scancode>(SDL_SCANCODE_1 + (key_id - '1')));
    if (key_id >= kKeyIdF1 && key_id < kKeyIdF1 + 12)
      return is(static_cast<SDL_Scancode>(SDL_SCANCODE_F1 + (key_id - kKeyIdF1)));
    switch (key_id) {
      case kKeyIdSpace: return is(SDL_SCANCODE_SPACE);
      case kKeyIdUp: return is(SDL_SCANCODE_UP);
      case kKeyIdDown: return is(SDL_SCANCODE_DOWN);
      case kKeyIdLeft: return is(SDL_SCANCODE_LEFT);
      case kKeyIdRight: return is(SDL_SCANCODE_RIGHT);
      case kKeyIdHome: return is(SDL_SCANCODE_HOME);
      case kKeyIdEnd: return is(SDL_SCANCODE_END);
      case kKeyIdPageUp: return is(SDL_SCANCODE_PAGEUP);
      case kKeyIdPageDown: return is(SDL_SCANCODE_PAGEDOWN);
      case kKeyIdInsert: return is(SDL_SCANCODE_INSERT);
      case kKeyIdDelete: return is(SDL_SCANCODE_DELETE);
      case kKeyIdEsc: return is(SDL_SCANCODE_ESCAPE);
      case kKeyIdEnter: return is(SDL_SCANCODE_RETURN) || is(SDL_SCANCODE_KP_ENTER);
      case kKeyIdTab: return is(SDL_SCANCODE_TAB);
      case kKeyIdBackspace: return is(SDL_SCANCODE_BACKSPACE);
      case kKeyIdShift: return is(SDL_SCANCODE_LSHIFT) || is(SDL_SCANCODE_RSHIFT);
      case kKeyIdCtrl: return is(SDL_SCANCODE_LCTRL) || is(SDL_SCANCODE_RCTRL);
      case kKeyIdAlt: return is(SDL_SCANCODE_LALT) || is(SDL_SCANCODE_RALT);
      default: return false;
    }
  }

  // SDL's clipboard belongs to the thread that runs the event loop (X11 answers
  // the request through events), so the interpreter asks that thread.
  bool clipboard_text(std::string* out) override {
    std::unique_lock guard(lock_);
    clip_answered_ = false;
    post(kClipboard, nullptr);
    while (!clip_answered_) {
      if (stop_requested()) return false;
      cv_.wait_for(guard, std::chrono::milliseconds(16));
    }
    if (!clip_ok_) return false;
    *out = clip_text_;
    return true;
  }

  std::vector<DisplayMode> video_modes() override { return display_modes(); }

 private:
  enum { kPaint = 1, kRecreate = 2, kClose = 3, kClipboard = 4 };

  void post(int code, void* data, void* data2 = nullptr) {
    SDL_Event e{};
    e.type = user_event_;
    e.user.code = code;
    e.user.data1 = data;
    e.user.data2 = data2;
    SDL_PushEvent(&e);
  }

  static Uint32 tick(Uint32 interval, void* self) {
    auto* me = static_cast<Sdl*>(self);
    // Coalesce: at most one pending paint from the timer.
    if (!me->paint_pending_.exchange(true)) me->post(kPaint, nullptr);
    return interval;
  }

  void handle_user(int code, void* data, void* data2) {
    if (code == kPaint) {
      paint_pending_.store(false);
      present();
    } else if (code == kRecreate) {
      const auto w = reinterpret_cast<std::uintptr_t>(data), h = reinterpret_cast<std::uintptr_t>(data2);
      const bool ok = screen::create_framebuffer(static_cast<std::uint32_t>(w), static_cast<std::uint32_t>(h)) &&
                      ensure_texture();
      if (ok && !(SDL_GetWindowFlags(window_) & SDL_WINDOW_FULLSCREEN_DESKTOP))
        SDL_SetWindowSize(window_, static_cast<int>(screen::fb.width), static_cast<int>(screen::fb.height));
      {
        std::lock_guard guard(lock_);
        answer_ = ok;
        answered_ = true;
      }
      cv_.notify_all();
      present(true);
    } else if (code == kClipboard) {
      std::string cp;
      bool ok = false;
      if (char* text = SDL_GetClipboardText()) {
        ok = utf8_to_cp437(text, &cp);
        SDL_free(text);
      }
      {
        std::lock_guard guard(lock_);
        clip_ok_ = ok;
        clip_text_ = std::move(cp);
        clip_answered_ = true;
      }
      cv_.notify_all();
    }
  }

  bool ensure_texture() {
    if (texture_ && tex_w_ == screen::fb.width && tex_h_ == screen::fb.height) return true;
    if (texture_) SDL_DestroyTexture(texture_);
    texture_ = SDL_CreateTexture(renderer_, SDL_PIXELFORMAT_RGB888, SDL_TEXTUREACCESS_STREAMING,
                                 static_cast<int>(screen::fb.width), static_cast<int>(screen::fb.height));
    tex_w_ = screen::fb.width;
    tex_h_ = screen::fb.height;
    return texture_ != nullptr;
  }

  // A tick whose frame, cursor and window are all as last shown presents
  // nothing: an idle Ready prompt then costs no 3 MB copy every 16 ms. A
  // frame is still shown at least every 250 ms, for pixels written straight
  // into the framebuffer's memory (POKE).
  bool frame_unchanged() {
    const std::uint64_t cursor = static_cast<std::uint64_t>(screen::cursor.visible.load()) |
                                 static_cast<std::uint64_t>(screen::cursor.insert.load()) << 1 |
                                 static_cast<std::uint64_t>(screen::cursor.col.load() & 0xFFFF) << 2 |
                                 static_cast<std::uint64_t>(screen::cursor.row.load() & 0xFFFF) << 18 |
                                 static_cast<std::uint64_t>(screen::cursor.colour.load()) << 34;
    int cw = 0, ch = 0;
    SDL_GetRendererOutputSize(renderer_, &cw, &ch);
    const std::uint64_t now = tick_ms();
    const bool same = !screen::fb.changed.exchange(0) && cursor == last_cursor_ && cw == last_w_ && ch == last_h_ &&
                      now - last_present_ < 250;
    if (!same) {
      last_cursor_ = cursor;
      last_w_ = cw;
      last_h_ = ch;
      last_present_ = now;
    }
    return same;
  }

  void present(bool force = false) {
    if (!window_ || (SDL_GetWindowFlags(window_) & SDL_WINDOW_MINIMIZED)) return;
    if (!force && frame_unchanged()) return;
    if (!ensure_texture()) return;
    void* pixels;
    int pitch;
    if (SDL_LockTexture(texture_, nullptr, &pixels, &pitch) != 0) return;
    const bool ok = screen::compose_frame(static_cast<std::uint32_t*>(pixels), static_cast<std::uint32_t>(pitch / 4),
                                          tex_w_, tex_h_);
    SDL_UnlockTexture(texture_);
    if (!ok) return;
    int cw, ch;
    SDL_GetRendererOutputSize(renderer_, &cw, &ch);
    if (cw <= 0 || ch <= 0) return;
    const screen::Rect r = screen::letterbox(cw, ch, tex_w_, tex_h_);
    SDL_SetRenderDrawColor(renderer_, 0, 0, 0, 255);
    SDL_RenderClear(renderer_);  // black letterbox bars
    const SDL_Rect dst{r.x, r.y, r.w, r.h};
    SDL_RenderCopy(renderer_, texture_, nullptr, &dst);
    SDL_RenderPresent(renderer_);
  }

  void to_frame(int wx, int wy, std::int32_t* x, std::int32_t* y) {
    // Window coordinates to renderer output pixels (they differ on high-DPI).
    int ww, wh, cw, ch;
    SDL_GetWindowSize(window_, &ww, &wh);
    SDL_GetRendererOutputSize(renderer_, &cw, &ch);
    const std::int64_t px = ww > 0 ? static_cast<std::int64_t>(wx) * cw / ww : wx;
    const std::int64_t py = wh > 0 ? static_cast<std::int64_t>(wy) * ch / wh : wy;
    screen::client_to_frame(px, py, cw, ch, x, y);
  }

  static std::uint32_t button_bit(Uint8 b) {
    switch (b) {
      case SDL_BUTTON_LEFT: return 1;
      case SDL_BUTTON_RIGHT: return 2;
      case SDL_BUTTON_MIDDLE: return 4;
      default: return 0;
    }
  }

  std::uint16_t modifier_bits(Uint16 mod) {
    if (!screen::keys.modifier_reporting.load() || screen::keys.debugger_request.load()) return 0;
    std::uint16_t m = 0;
    if (mod & KMOD_SHIFT) m |= screen::kModShift;
    if (mod & KMOD_CTRL) m |= screen::kModCtrl;
    if (mod & KMOD_ALT) m |= screen::kModAlt;
    return m;
  }

  static std::uint16_t extended_code(SDL_Keycode k, SDL_Scancode sc, Uint16 mod) {
    // With Num Lock off the keypad digits are navigation keys.
    if (!(mod & KMOD_NUM)) {
      switch (sc) {
        case SDL_SCANCODE_KP_7: return screen::kKeyHome;
        case SDL_SCANCODE_KP_8: return screen::kKeyUp;
        case SDL_SCANCODE_KP_9: return screen::kKeyPageUp;
        case SDL_SCANCODE_KP_4: return screen::kKeyLeft;
        case SDL_SCANCODE_KP_6: return screen::kKeyRight;
        case SDL_SCANCODE_KP_1: return screen::kKeyEnd;
        case SDL_SCANCODE_KP_2: return screen::kKeyDown;
        case SDL_SCANCODE_KP_3: return screen::kKeyPageDown;
        case SDL_SCANCODE_KP_0: return screen::kKeyInsert;
        case SDL_SCANCODE_KP_PERIOD: return screen::kKeyDelete;
        default: break;
      }
    }
    switch (k) {
      case SDLK_ESCAPE:
      case SDLK_PAUSE:   // Pause, and Ctrl+Break (the same key with Ctrl)
      case SDLK_CANCEL:  // what some keymaps make of Ctrl+Break
        return screen::kKeyEsc;
      case SDLK_PAGEUP: return screen::kKeyPageUp;
      case SDLK_PAGEDOWN: return screen::kKeyPageDown;
      case SDLK_END: return screen::kKeyEnd;
      case SDLK_HOME: return screen::kKeyHome;
      case SDLK_LEFT: return screen::kKeyLeft;
      case SDLK_UP: return screen::kKeyUp;
      case SDLK_RIGHT: return screen::kKeyRight;
      case SDLK_DOWN: return screen::kKeyDown;
      case SDLK_INSERT: return screen::kKeyInsert;
      case SDLK_DELETE: return screen::kKeyDelete;
      default: break;
    }
    if (k >= SDLK_F1 && k <= SDLK_F10) return static_cast<std::uint16_t>(screen::kKeyF1 + (k - SDLK_F1));
    return 0;
  }

  void paste() {
    char* text = SDL_GetClipboardText();
    if (!text) return;
    std::string cp;
    const bool ok = utf8_to_cp437(text, &cp);
    SDL_free(text);
    if (!ok) return;  // a failed conversion pastes nothing
    for (unsigned char c : cp) {
      if (c == '\n') c = 13;
      else if (c == '\r') continue;  // CR LF pastes as one Enter
      else if (c < 32) continue;
      screen::keys.push(0, c);
    }
  }

  void toggle_fullscreen() {
    const bool full = SDL_GetWindowFlags(window_) & SDL_WINDOW_FULLSCREEN_DESKTOP;
    SDL_SetWindowFullscreen(window_, full ? 0 : SDL_WINDOW_FULLSCREEN_DESKTOP);
    if (full) SDL_SetWindowSize(window_, static_cast<int>(screen::fb.width), static_cast<int>(screen::fb.height));
  }

  void key_down(const SDL_KeyboardEvent& k) {
    const SDL_Keycode sym = k.keysym.sym;
    const SDL_Scancode sc = k.keysym.scancode;
    const Uint16 mod = k.keysym.mod;
    if (sc < SDL_NUM_SCANCODES) down_[sc].store(true);
    if (mod & KMOD_GUI) return;  // the Windows/Super key's combinations belong to the desktop
    const bool ctrl = mod & KMOD_CTRL, alt = mod & KMOD_ALT, shift = mod & KMOD_SHIFT;
    const bool repeat = k.repeat != 0;
    auto& q = screen::keys;
    if (sym == SDLK_F11 || (alt && (sym == SDLK_RETURN || sym == SDLK_KP_ENTER))) {
      if (!repeat) toggle_fullscreen();
      return;
    }
    if (alt && (sym == SDLK_TAB || sym == SDLK_F4 || sym == SDLK_SPACE || sym == SDLK_ESCAPE)) return;
    if (sym == SDLK_F12) {
      if (!repeat) {
        q.debugger_request.store(1);
        q.signal();
      }
      return;
    }
    const std::uint16_t mods = modifier_bits(mod);
    if (ctrl && !alt && sym == SDLK_v) {
      if (!q.modifier_reporting.load() && (q.editor_waiting.load() || q.ready_prompt_waiting.load()))
        paste();
      else
        q.push_keydown(mods, 22, sc, repeat);
      return;
    }
    if (ctrl && shift && sym == SDLK_l && q.ready_prompt_waiting.load() && !q.debugger_request.load()) {
      q.push_keydown(screen::kKeyReset, 0, sc, repeat);
      return;
    }
    if (ctrl && !alt && sym >= SDLK_a && sym <= SDLK_z) {
      q.push_keydown(mods, static_cast<std::uint16_t>(sym - SDLK_a + 1), sc, repeat);
      return;
    }
    if (const std::uint16_t code = extended_code(sym, sc, mod)) {
      q.push_keydown(static_cast<std::uint16_t>(code | mods), 0, sc, repeat);
      return;
    }
    switch (sym) {
      case SDLK_BACKSPACE: q.push_keydown(mods, ctrl ? 127 : 8, sc, repeat); return;
      case SDLK_TAB: q.push_keydown(mods, 9, sc, repeat); return;
      case SDLK_RETURN:
      case SDLK_KP_ENTER: q.push_keydown(mods, 13, sc, repeat); return;
      default: break;
    }
    // Alt (without Ctrl) with a printable key gives the key's base character;
    // ordinary typing arrives as text input.
    if (alt && !ctrl && sym >= 33 && sym < 127) q.push_keydown(mods, static_cast<std::uint16_t>(sym), sc, repeat);
    else if (sym >= 32 && sym < 127 && !ctrl && !alt) last_text_key_ = sc, last_text_repeat_ = repeat;
  }

  void text_input(const char* utf8) {
    const Uint16 mod = SDL_GetModState();
    if ((mod & (KMOD_CTRL | KMOD_ALT)) && !((mod & KMOD_CTRL) && (mod & KMOD_ALT))) return;
    std::string cp;
    Utf8Decoder d;
    char32_t cps[2];
    for (const char* p = utf8; *p; ++p) {
      for (int i = 0, n = d.feed(static_cast<std::uint8_t>(*p), cps); i < n; ++i) {
        if (cps[i] < 32) continue;  // a control character
        const int c = unicode_to_cp437(cps[i]);
        if (c < 0) continue;  // no code page 437 counterpart: swallowed
        screen::keys.push_keydown(modifier_bits(mod), static_cast<std::uint16_t>(c), last_text_key_, last_text_repeat_);
      }
    }
  }

  void handle(const SDL_Event& e) {
    switch (e.type) {
      case SDL_KEYDOWN: key_down(e.key); break;
      case SDL_KEYUP:
        if (e.key.keysym.scancode < SDL_NUM_SCANCODES) down_[e.key.keysym.scancode].store(false);
        screen::keys.key_released(e.key.keysym.scancode);
        break;
      case SDL_TEXTINPUT: text_input(e.text.text); break;
      case SDL_MOUSEMOTION: {
        std::int32_t x, y;
        to_frame(e.motion.x, e.motion.y, &x, &y);
        screen::mouse_move(x, y);
        break;
      }
      case SDL_MOUSEBUTTONDOWN: {
        const std::uint32_t bit = button_bit(e.button.button);
        if (!bit) break;
        std::int32_t x, y;
        to_frame(e.button.x, e.button.y, &x, &y);
        screen::mouse_button_down(bit, x, y, tick_ms());
        SDL_CaptureMouse(SDL_TRUE);
        break;
      }
      case SDL_MOUSEBUTTONUP: {
        const std::uint32_t bit = button_bit(e.button.button);
        if (bit && screen::mouse_button_up(bit)) SDL_CaptureMouse(SDL_FALSE);
        break;
      }
      case SDL_MOUSEWHEEL:
        screen::mouse_wheel(e.wheel.y * 120);  // one notch is 120, as on Windows
        break;
      case SDL_WINDOWEVENT:
        if (e.window.event == SDL_WINDOWEVENT_FOCUS_LOST) {
          screen::mouse_capture_lost();
          for (auto& d : down_) d.store(false);
        } else if (e.window.event == SDL_WINDOWEVENT_EXPOSED || e.window.event == SDL_WINDOWEVENT_SIZE_CHANGED) {
          present(true);
        } else if (e.window.event == SDL_WINDOWEVENT_ENTER || e.window.event == SDL_WINDOWEVENT_LEAVE) {
          SDL_ShowCursor(screen::mouse.pointer_visible.load() ? SDL_ENABLE : SDL_DISABLE);
        }
        break;
      default: break;
    }
    // The pointer-visible flag (MOUSE ON|OFF) follows the interpreter.
    const int want = screen::mouse.pointer_visible.load() ? SDL_ENABLE : SDL_DISABLE;
    if (want != cursor_shown_) {
      SDL_ShowCursor(want);
      cursor_shown_ = want;
    }
  }

  SDL_Window* window_ = nullptr;
  SDL_Renderer* renderer_ = nullptr;
  SDL_Texture* texture_ = nullptr;
  std::uint32_t tex_w_ = 0, tex_h_ = 0;
  SDL_TimerID timer_ = 0;
  Uint32 user_event_ = 0;
  std::atomic<bool> paint_pending_{false};
  std::uint64_t last_cursor_ = 0, last_present_ = 0;
  int last_w_ = 0, last_h_ = 0;
  std::atomic<bool> down_[SDL_NUM_SCANCODES] = {};
  int last_text_key_ = 0;
  bool last_text_repeat_ = false;
  int cursor_shown_ = SDL_ENABLE;
  std::mutex lock_;
  std::condition_variable cv_;
  bool answered_ = false, answer_ = false;
  bool clip_answered_ = false, clip_ok_ = false;
  std::string clip_text_;
};

}  // namespace

std::vector<DisplayMode> display_modes() {
  std::vector<DisplayMode> modes;
  SDL_Window* window = g_window.load();
  if (!window) return modes;
  const int display = SDL_GetWindowDisplayIndex(window);
  if (display < 0) return modes;
  const int n = SDL_GetNumDisplayModes(display);
  for (int i = 0; i < n; ++i) {
    SDL_DisplayMode m;
    if (SDL_GetDisplayMode(display, i, &m) != 0) break;
    if (!add_display_mode(modes, static_cast<std::uint32_t>(m.w), static_cast<std::uint32_t>(m.h))) break;
  }
  std::sort(modes.begin(), modes.end());
  return modes;
}

Frontend* make_sdl_frontend() {
  auto* s = new Sdl();
  if (!s->init()) {
    delete s;
    return nullptr;
  }
  return s;
}

}  // namespace host
