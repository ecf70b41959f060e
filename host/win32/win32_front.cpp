// Win32 front end: the "TambrilBasicWindow" window, presentation through two
// DIB sections, the message loop with the keyboard pre-filter, mouse capture,
// full screen and the private framebuffer-recreation message.
#include "host/win32/win32_front.h"

#include <windows.h>
#include <windowsx.h>

#include <algorithm>
#include <atomic>
#include <string>

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

constexpr wchar_t kClassName[] = L"TambrilBasicWindow";
constexpr wchar_t kTitle[] = L"Tambril BASIC 3.4.1";
constexpr DWORD kWindowStyle = 0x00CA0000;  // caption, system menu, minimise box: fixed size
constexpr UINT kRecreateMessage = WM_APP + 1;  // 0x8001: wParam width, lParam height
constexpr UINT_PTR kTimerId = 1;

// The window procedure and display_modes() reach the one front end through this.
class Win32;
Win32* g_front = nullptr;
std::atomic<HWND> g_window{nullptr};

bool down(int vk) { return (GetKeyState(vk) & 0x8000) != 0; }

// The clipboard's Unicode text in code page 437. Another program may hold the
// clipboard for a moment, so opening is retried up to 50 times 5 ms apart.
bool read_clipboard(HWND owner, std::string* out) {
  bool open = false;
  for (int attempt = 0; attempt < 50 && !(open = OpenClipboard(owner)); ++attempt) Sleep(5);
  if (!open) return false;
  std::u16string text;
  bool found = false;
  if (HANDLE h = GetClipboardData(CF_UNICODETEXT)) {
    if (const auto* p = static_cast<const char16_t*>(GlobalLock(h))) {
      const SIZE_T cap = GlobalSize(h) / sizeof(char16_t);
      SIZE_T n = 0;
      while (n < cap && p[n]) ++n;
      text.assign(p, n);
      GlobalUnlock(h);
      found = true;
    }
  }
  CloseClipboard();
  return found && utf16_to_cp437(text, out);
}

// A memory device context with one 32-bit top-down DIB section selected into it.
struct Surface {
  HDC dc = nullptr;
  HBITMAP bitmap = nullptr;
  HGDIOBJ original = nullptr;  // the DC's first bitmap, put back before the DC goes
  std::uint32_t* bits = nullptr;
  int w = 0, h = 0;

  static HBITMAP make_dib(int width, int height, void** bits) {
    BITMAPINFO bi{};
    bi.bmiHeader.biSize = sizeof bi.bmiHeader;
    bi.bmiHeader.biWidth = width;
    bi.bmiHeader.biHeight = -height;  // negative: rows run top-down like the framebuffer
    bi.bmiHeader.biPlanes = 1;
    bi.bmiHeader.biBitCount = 32;
    bi.bmiHeader.biCompression = BI_RGB;
    *bits = nullptr;
    HBITMAP b = CreateDIBSection(nullptr, &bi, DIB_RGB_COLORS, bits, nullptr, 0);
    if (b && !*bits) {
      DeleteObject(b);
      b = nullptr;
    }
    return b;
  }

  // Selects b into the context and deletes the bitmap it replaces.
  void install(HBITMAP b, void* p, int width, int height) {
    HGDIOBJ previous = SelectObject(dc, b);
    if (!original) original = previous;
    if (bitmap) DeleteObject(bitmap);
    bitmap = b;
    bits = static_cast<std::uint32_t*>(p);
    w = width;
    h = height;
  }

  // A new bitmap of width x height; on failure the old one stays.
  bool resize(int width, int height) {
    if (!dc && !(dc = CreateCompatibleDC(nullptr))) return false;
    void* p;
    HBITMAP b = make_dib(width, height, &p);
    if (!b) return false;
    install(b, p, width, height);
    return true;
  }

  void release() {
    if (dc && original) SelectObject(dc, original);
    if (bitmap) DeleteObject(bitmap);
    if (dc) DeleteDC(dc);
    *this = Surface{};
  }
};

class Win32 final : public Frontend {
 public:
  explicit Win32(int show_command) : show_command_(show_command) {}

  bool create_window() override {
    instance_ = GetModuleHandleW(nullptr);
    WNDCLASSEXW wc{};
    wc.cbSize = sizeof wc;
    wc.lpfnWndProc = window_proc;
    wc.hInstance = instance_;
    wc.hCursor = LoadCursorW(nullptr, IDC_ARROW);
    wc.hIcon = LoadIconW(nullptr, IDI_APPLICATION);
    wc.hbrBackground = nullptr;  // every paint covers the whole client area
    wc.lpszMenuName = nullptr;
    wc.lpszClassName = kClassName;
    if (!RegisterClassExW(&wc)) return false;
    RECT r{0, 0, static_cast<LONG>(screen::kStartWidth), static_cast<LONG>(screen::kStartHeight)};
    AdjustWindowRect(&r, kWindowStyle, FALSE);
    hwnd_ = CreateWindowExW(0, kClassName, kTitle, kWindowStyle, CW_USEDEFAULT, CW_USEDEFAULT, r.right - r.left,
                            r.bottom - r.top, nullptr, nullptr, instance_, nullptr);
    if (!hwnd_) return false;
    g_window.store(hwnd_);
    return true;
  }

  bool create_surfaces() override {
    if (!present_.resize(static_cast<int>(screen::kStartWidth), static_cast<int>(screen::kStartHeight))) return false;
    return screen::create_framebuffer(screen::kStartWidth, screen::kStartHeight);
  }

  void show_window() override {
    ShowWindow(hwnd_, show_command_ ? show_command_ : SW_SHOWDEFAULT);
    UpdateWindow(hwnd_);
  }

  bool start_timer() override { return SetTimer(hwnd_, kTimerId, 16, nullptr) != 0; }
  void stop_timer() override {
    if (hwnd_) KillTimer(hwnd_, kTimerId);
  }

  int run_message_loop() override {
    MSG m{};
    for (;;) {
      const BOOL r = GetMessageW(&m, nullptr, 0, 0);
      if (r == 0 || r == -1) break;
      if ((m.message == WM_KEYDOWN || m.message == WM_SYSKEYDOWN) && m.hwnd == hwnd_ &&
          prefilter(m.message, m.wParam, m.lParam))
        continue;
      TranslateMessage(&m);
      DispatchMessageW(&m);
    }
    return m.message == WM_QUIT ? static_cast<int>(m.wParam) : shell.exit_code.load();
  }

  void release_surfaces() override {
    if (!shell.screenshot.empty()) screen::write_snapshot(shell.screenshot);
    present_.release();
    window_.release();
  }

  void destroy_window() override {
    if (hwnd_ && IsWindow(hwnd_)) DestroyWindow(hwnd_);
    hwnd_ = nullptr;
  }

  // The framebuffer is only ever replaced on the window thread: the request
  // waits for the window procedure's answer.
  bool recreate_framebuffer(std::uint32_t w, std::uint32_t h) override {
    HWND wnd = g_window.load();
    if (!wnd || stop_requested()) return false;
    return SendMessageW(wnd, kRecreateMessage, w, h) != 0;
  }

  void repaint_now() override {
    if (HWND wnd = g_window.load()) InvalidateRect(wnd, nullptr, FALSE);
  }

  void post_close() override {
    if (HWND wnd = g_window.load()) PostMessageW(wnd, WM_CLOSE, 0, 0);
  }

  bool key_is_down(int host_key) override {
    return host_key > 0 && host_key < 256 && (GetAsyncKeyState(host_key) & 0x8000) != 0;
  }

  bool named_key_down(int key_id) override {
    // Letters and digits are their own virtual keys.
    if ((key_id >= 'A' && key_id <= 'Z') || (key_id >= '0' && key_id <= '9')) return key_is_down(key_id);
    if (key_id >= kKeyIdF1 && key_id < kKeyIdF1 + 12) return key_is_down(VK_F1 + (key_id - kKeyIdF1));
    switch (key_id) {
      case kKeyIdSpace: return key_is_down(VK_SPACE);
      case kKeyIdUp: return key_is_down(VK_UP);
      case kKeyIdDown: return key_is_down(VK_DOWN);
      case kKeyIdLeft: return key_is_down(VK_LEFT);
      case kKeyIdRight: return key_is_down(VK_RIGHT);
      case kKeyIdHome: return key_is_down(VK_HOME);
      case kKeyIdEnd: return key_is_down(VK_END);
      case kKeyIdPageUp: return key_is_down(VK_PRIOR);
      case kKeyIdPageDown: return key_is_down(VK_NEXT);
      case kKeyIdInsert: return key_is_down(VK_INSERT);
      case kKeyIdDelete: return key_is_down(VK_DELETE);
      case kKeyIdEsc: return key_is_down(VK_ESCAPE);
      case kKeyIdEnter: return key_is_down(VK_RETURN);
      case kKeyIdTab: return key_is_down(VK_TAB);
      case kKeyIdBackspace: return key_is_down(VK_BACK);
      case kKeyIdShift: return key_is_down(VK_SHIFT);
      case kKeyIdCtrl: return key_is_down(VK_CONTROL);
      case kKeyIdAlt: return key_is_down(VK_MENU);
      default: return false;
    }
  }

  // Any thread may read the clipboard; no owner window is needed for reading.
  bool clipboard_text(std::string* out) override { return read_clipboard(nullptr, out); }

  std::vector<DisplayMode> video_modes() override { return display_modes(); }

  LRESULT handle(HWND wnd, UINT msg, WPARAM wp, LPARAM lp) {
    if (!hwnd_) hwnd_ = wnd;  // messages sent while CreateWindowExW is still running
    if (prefilter(msg, wp, lp)) return 0;
    switch (msg) {
      case WM_DESTROY:
        g_window.store(nullptr);
        request_stop();
        PostQuitMessage(shell.exit_code.load());
        return 0;
      case WM_PAINT: {
        PAINTSTRUCT ps;
        HDC dc = BeginPaint(wnd, &ps);
        if (dc) present(dc);
        EndPaint(wnd, &ps);
        return 0;
      }
      case WM_CLOSE:
        DestroyWindow(wnd);
        return 0;
      case WM_ERASEBKGND:
        return 1;
      case WM_SETCURSOR:
        if (LOWORD(lp) == HTCLIENT) {
          SetCursor(screen::mouse.pointer_visible.load() ? LoadCursorW(nullptr, IDC_ARROW) : nullptr);
          return TRUE;
        }
        break;
      case WM_TIMER:
        if (wp == kTimerId) {
          if (!IsIconic(wnd)) InvalidateRect(wnd, nullptr, FALSE);
          return 0;
        }
        break;
      case WM_MOUSEMOVE: {
        std::int32_t x, y;
        to_frame(lp, &x, &y);
        screen::mouse_move(x, y);
        return 0;
      }
      case WM_LBUTTONDOWN: button_down(1, lp); return 0;
      case WM_RBUTTONDOWN: button_down(2, lp); return 0;
      case WM_MBUTTONDOWN: button_down(4, lp); return 0;
      case WM_LBUTTONUP: button_up(1); return 0;
      case WM_RBUTTONUP: button_up(2); return 0;
      case WM_MBUTTONUP: button_up(4); return 0;
      case WM_MOUSEWHEEL:
        screen::mouse_wheel(GET_WHEEL_DELTA_WPARAM(wp));
        return 0;
      case WM_CAPTURECHANGED:
        screen::mouse_capture_lost();
        return 0;
      case kRecreateMessage:
        return recreate(static_cast<std::uint32_t>(wp), static_cast<std::uint32_t>(lp)) ? 1 : 0;
      default:
        break;
    }
    return DefWindowProcW(wnd, msg, wp, lp);
  }

 private:
  static LRESULT CALLBACK window_proc(HWND wnd, UINT msg, WPARAM wp, LPARAM lp) {
    if (g_front) return g_front->handle(wnd, msg, wp, lp);
    return DefWindowProcW(wnd, msg, wp, lp);
  }

  // --- presentation -------------------------------------------------------

  void present(HDC target) {
    if (!present_.dc || !present_.bits || present_.w <= 0 || present_.h <= 0) return;
    RECT rc{};
    GetClientRect(hwnd_, &rc);
    const int cw = rc.right - rc.left, ch = rc.bottom - rc.top;
    if (cw <= 0 || ch <= 0) return;
    if ((!window_.dc || window_.w != cw || window_.h != ch) && !window_.resize(cw, ch)) return;
    GdiFlush();  // GDI must be done with the bits before we write them
    if (!screen::compose_frame(present_.bits, static_cast<std::uint32_t>(present_.w),
                               static_cast<std::uint32_t>(present_.w), static_cast<std::uint32_t>(present_.h)))
      return;
    const screen::Rect r = screen::letterbox(cw, ch, present_.w, present_.h);
    FillRect(window_.dc, &rc, static_cast<HBRUSH>(GetStockObject(BLACK_BRUSH)));
    SetStretchBltMode(window_.dc, COLORONCOLOR);  // nearest pixel: glyphs stay crisp
    StretchBlt(window_.dc, r.x, r.y, r.w, r.h, present_.dc, 0, 0, present_.w, present_.h, SRCCOPY);
    BitBlt(target, 0, 0, cw, ch, window_.dc, 0, 0, SRCCOPY);
  }

  bool recreate(std::uint32_t w, std::uint32_t h) {
    if (!present_.dc || !screen::valid_framebuffer_size(w, h)) return false;
    // The new bitmap first: if either part fails, the old pair stays in use.
    void* p;
    HBITMAP b = Surface::make_dib(static_cast<int>(w), static_cast<int>(h), &p);
    if (!b) return false;
    if (!screen::create_framebuffer(w, h)) {
      DeleteObject(b);
      return false;
    }
    present_.install(b, p, static_cast<int>(w), static_cast<int>(h));
    if (!fullscreen_) fit_window();
    InvalidateRect(hwnd_, nullptr, FALSE);
    return true;
  }

  // Client area of the framebuffer's size, shrunk with the aspect ratio kept
  // when that would not fit the monitor's work area.
  void fit_window() {
    MONITORINFO mi{};
    mi.cbSize = sizeof mi;
    GetMonitorInfoW(MonitorFromWindow(hwnd_, MONITOR_DEFAULTTONEAREST), &mi);
    RECT frame{0, 0, 0, 0};
    AdjustWindowRect(&frame, kWindowStyle, FALSE);
    const std::int64_t max_w = (mi.rcWork.right - mi.rcWork.left) - (frame.right - frame.left);
    const std::int64_t max_h = (mi.rcWork.bottom - mi.rcWork.top) - (frame.bottom - frame.top);
    std::int64_t w = screen::fb.width, h = screen::fb.height;
    if (max_w > 0 && max_h > 0 && (w > max_w || h > max_h)) {
      const screen::Rect r = screen::letterbox(max_w, max_h, w, h);
      w = r.w;
      h = r.h;
    }
    RECT r{0, 0, static_cast<LONG>(w), static_cast<LONG>(h)};
    AdjustWindowRect(&r, kWindowStyle, FALSE);
    SetWindowPos(hwnd_, nullptr, 0, 0, r.right - r.left, r.bottom - r.top, SWP_NOMOVE | SWP_NOZORDER | SWP_NOACTIVATE);
  }

  void toggle_fullscreen() {
    if (!fullscreen_) {
      GetWindowRect(hwnd_, &saved_rect_);
      MONITORINFO mi{};
      mi.cbSize = sizeof mi;
      if (!GetMonitorInfoW(MonitorFromWindow(hwnd_, MONITOR_DEFAULTTONEAREST), &mi)) return;
      SetWindowLongPtrW(hwnd_, GWL_STYLE, WS_POPUP | WS_VISIBLE);
      SetWindowPos(hwnd_, HWND_TOP, mi.rcMonitor.left, mi.rcMonitor.top, mi.rcMonitor.right - mi.rcMonitor.left,
                   mi.rcMonitor.bottom - mi.rcMonitor.top, SWP_FRAMECHANGED | SWP_NOOWNERZORDER);
      fullscreen_ = true;
    } else {
      SetWindowLongPtrW(hwnd_, GWL_STYLE, kWindowStyle | WS_VISIBLE);
      SetWindowPos(hwnd_, nullptr, saved_rect_.left, saved_rect_.top, 0, 0,
                   SWP_NOSIZE | SWP_NOZORDER | SWP_NOOWNERZORDER | SWP_FRAMECHANGED);
      fullscreen_ = false;
      fit_window();
    }
    InvalidateRect(hwnd_, nullptr, FALSE);
  }

  // --- mouse --------------------------------------------------------------

  void to_frame(LPARAM lp, std::int32_t* x, std::int32_t* y) {
    RECT rc{};
    GetClientRect(hwnd_, &rc);
    screen::client_to_frame(GET_X_LPARAM(lp), GET_Y_LPARAM(lp), rc.right - rc.left, rc.bottom - rc.top, x, y);
  }

  void button_down(std::uint32_t bit, LPARAM lp) {
    std::int32_t x, y;
    to_frame(lp, &x, &y);
    screen::mouse_button_down(bit, x, y, tick_ms());
    SetCapture(hwnd_);
  }

  void button_up(std::uint32_t bit) {
    if (screen::mouse_button_up(bit)) ReleaseCapture();
  }

  // --- keyboard pre-filter ------------------------------------------------
  // True when the message was consumed; it is then neither translated nor
  // given to the window procedure.

  bool prefilter(UINT msg, WPARAM wp, LPARAM lp) {
    switch (msg) {
      case WM_KEYDOWN:
      case WM_SYSKEYDOWN: return key_down(static_cast<int>(wp), lp);
      case WM_KEYUP:
      case WM_SYSKEYUP: return key_up(static_cast<int>(wp));
      case WM_CHAR: return char_message(wp, lp);
      case WM_SYSCHAR:
        // Alt with a printable key; swallowed either way so that no menu
        // mnemonic search (and its beep) follows.
        if (down(VK_MENU) && !down(VK_CONTROL) && wp >= 33) {
          push_unicode(static_cast<char32_t>(wp), lp);
          return true;
        }
        return false;
      case WM_SYSCOMMAND:
        // The keyboard menu opens only from Alt+Space, so Alt alone never
        // leaves the window in menu mode.
        return (wp & 0xFFF0) == SC_KEYMENU && lp != ' ';
      default: return false;
    }
  }

  std::uint16_t modifier_bits() const {
    if (!screen::keys.modifier_reporting.load() || screen::keys.debugger_request.load()) return 0;
    std::uint16_t m = 0;
    if (down(VK_SHIFT)) m |= screen::kModShift;
    if (down(VK_CONTROL)) m |= screen::kModCtrl;
    if (down(VK_MENU)) m |= screen::kModAlt;
    return m;
  }

  // Navigation codes of the keypad's non-extended keys while Num Lock is off.
  static std::uint16_t keypad_code(unsigned scan) {
    switch (scan) {
      case 71: return screen::kKeyHome;
      case 72: return screen::kKeyUp;
      case 73: return screen::kKeyPageUp;
      case 75: return screen::kKeyLeft;
      case 77: return screen::kKeyRight;
      case 79: return screen::kKeyEnd;
      case 80: return screen::kKeyDown;
      case 81: return screen::kKeyPageDown;
      case 82: return screen::kKeyInsert;
      case 83: return screen::kKeyDelete;
      default: return 0;
    }
  }

  static std::uint16_t virtual_key_code(int vk) {
    switch (vk) {
      case VK_ESCAPE:
      case VK_PAUSE:   // Pause
      case VK_CANCEL:  // Ctrl+Break
        return screen::kKeyEsc;
      case VK_PRIOR: return screen::kKeyPageUp;
      case VK_NEXT: return screen::kKeyPageDown;
      case VK_END: return screen::kKeyEnd;
      case VK_HOME: return screen::kKeyHome;
      case VK_LEFT: return screen::kKeyLeft;
      case VK_UP: return screen::kKeyUp;
      case VK_RIGHT: return screen::kKeyRight;
      case VK_DOWN: return screen::kKeyDown;
      case VK_INSERT: return screen::kKeyInsert;
      case VK_DELETE: return screen::kKeyDelete;
      default: break;
    }
    if (vk >= VK_F1 && vk <= VK_F10) return static_cast<std::uint16_t>(screen::kKeyF1 + (vk - VK_F1));
    return 0;
  }

  static bool modifier_only(int vk) {
    switch (vk) {
      case VK_SHIFT: case VK_LSHIFT: case VK_RSHIFT:
      case VK_CONTROL: case VK_LCONTROL: case VK_RCONTROL:
      case VK_MENU: case VK_LMENU: case VK_RMENU:
      case VK_CAPITAL: case VK_LWIN: case VK_RWIN: case VK_NUMLOCK: case VK_SCROLL:
        return true;
      default: return false;
    }
  }

  // A translated character: pushed when it is one code page 437 byte.
  bool push_unicode(char32_t u, LPARAM lp) {
    if (u < 32) return false;
    const int c = unicode_to_cp437(u);
    if (c < 0) return false;
    screen::keys.push_keydown(modifier_bits(), static_cast<std::uint16_t>(c), last_vk_, (lp >> 30) & 1);
    return true;
  }

  bool key_down(int vk, LPARAM lp) {
    const bool repeat = (lp >> 30) & 1;
    const unsigned scan = (lp >> 16) & 0xFF;
    const bool extended = (lp >> 24) & 1;
    if (down(VK_LWIN) || down(VK_RWIN)) return false;  // the desktop's shortcuts
    const bool alt = down(VK_MENU), ctrl = down(VK_CONTROL), shift = down(VK_SHIFT);
    if (alt && vk != VK_MENU) alt_used_ = true;
    if (alt) {
      if (vk == VK_TAB || vk == VK_ESCAPE || vk == VK_SPACE || vk == VK_F4) return false;
      if (vk >= VK_NUMPAD0 && vk <= VK_NUMPAD9) return false;  // Alt+keypad character entry
      // The keypad's navigation keys (not the separate block) type Alt codes too.
      if (!extended && ((scan >= 71 && scan <= 73) || (scan >= 75 && scan <= 77) || (scan >= 79 && scan <= 82)))
        return false;
    }
    last_vk_ = vk;
    auto& q = screen::keys;
    if (vk == VK_F11 || (alt && vk == VK_RETURN)) {
      if (!repeat) toggle_fullscreen();
      return true;
    }
    if (vk == VK_F12) {
      if (!repeat) {
        q.debugger_request.store(1);
        q.signal();
      }
      return true;
    }
    const std::uint16_t mods = modifier_bits();
    if (ctrl && !alt && vk == 'V') {
      if (!q.modifier_reporting.load() && (q.editor_waiting.load() || q.ready_prompt_waiting.load()))
        paste();
      else
        q.push_keydown(mods, 22, vk, repeat);
      return true;
    }
    if (ctrl && shift && vk == 'L' && q.ready_prompt_waiting.load() && !q.debugger_request.load()) {
      q.push_keydown(screen::kKeyReset, 0, vk, repeat);
      return true;
    }
    if (ctrl && !alt && vk >= 'A' && vk <= 'Z') {
      q.push_keydown(mods, static_cast<std::uint16_t>(vk - 'A' + 1), vk, repeat);
      return true;
    }
    std::uint16_t code = 0;
    if (!extended && !(GetKeyState(VK_NUMLOCK) & 1)) code = keypad_code(scan);
    if (!code) code = virtual_key_code(vk);
    if (code) {
      q.push_keydown(static_cast<std::uint16_t>(code | mods), 0, vk, repeat);
      return true;
    }
    switch (vk) {
      case VK_BACK: q.push_keydown(mods, ctrl ? 127 : 8, vk, repeat); return true;
      case VK_TAB: q.push_keydown(mods, 9, vk, repeat); return true;
      case VK_RETURN: q.push_keydown(mods, 13, vk, repeat); return true;
      default: break;
    }
    if (modifier_only(vk)) return false;
    return translate(vk, scan, lp);
  }

  // The key through the current layout; failing that its unshifted character,
  // so that Alt and Ctrl with printable keys give the key's base character.
  bool translate(int vk, unsigned scan, LPARAM lp) {
    const HKL layout = GetKeyboardLayout(0);
    BYTE state[256];
    if (GetKeyboardState(state)) {
      wchar_t buf[8];
      const int n = ToUnicodeEx(static_cast<UINT>(vk), scan, state, buf, 8, 0, layout);
      if (n < 0) return true;  // a dead key: the layout combines it with the next key
      bool pushed = false;
      for (int i = 0; i < n; ++i) pushed |= push_unicode(static_cast<char32_t>(buf[i]), lp);
      if (pushed) return true;
    }
    const UINT base = MapVirtualKeyExW(static_cast<UINT>(vk), MAPVK_VK_TO_CHAR, layout) & 0x7FFFFFFFu;
    return base != 0 && push_unicode(static_cast<char32_t>(base), lp);
  }

  bool key_up(int vk) {
    screen::keys.key_released(vk);
    if (vk == VK_F10) return true;  // its key-up would open the menu bar
    if (vk == VK_MENU) {
      const bool used = alt_used_;
      alt_used_ = false;
      return used;
    }
    return false;
  }

  // WM_CHAR for keys the key-down path left alone.
  bool char_message(WPARAM wp, LPARAM lp) {
    if (wp == 27) return true;
    if (wp == 8 || wp == 9 || wp == 13) {
      screen::keys.push_keydown(modifier_bits(), static_cast<std::uint16_t>(wp), last_vk_, (lp >> 30) & 1);
      return true;
    }
    if (wp < 32) return false;
    push_unicode(static_cast<char32_t>(wp), lp);
    return true;
  }

  void paste() {
    std::string cp;
    if (!read_clipboard(hwnd_, &cp)) return;  // a failed open or conversion pastes nothing
    for (unsigned char c : cp) {
      if (c == '\n') c = 13;  // CR LF becomes one Enter: the CR is dropped below
      else if (c < 32) continue;
      screen::keys.push(0, c);
    }
  }

  int show_command_;
  HINSTANCE instance_ = nullptr;
  HWND hwnd_ = nullptr;
  Surface present_;  // framebuffer-sized copy of the frame
  Surface window_;   // client-sized composition target
  bool fullscreen_ = false;
  RECT saved_rect_{};
  int last_vk_ = 0;
  bool alt_used_ = false;
};

}  // namespace

Frontend* make_win32_frontend(int show_command) {
  SetProcessDPIAware();
  auto* w = new Win32(show_command);
  g_front = w;
  return w;
}

std::vector<DisplayMode> display_modes() {
  std::vector<DisplayMode> modes;
  HWND wnd = g_window.load();
  HMONITOR mon = wnd ? MonitorFromWindow(wnd, MONITOR_DEFAULTTONEAREST) : MonitorFromPoint(POINT{0, 0}, MONITOR_DEFAULTTOPRIMARY);
  MONITORINFOEXW mi{};
  mi.cbSize = sizeof mi;
  const wchar_t* device = GetMonitorInfoW(mon, &mi) ? mi.szDevice : nullptr;
  DEVMODEW dm{};
  dm.dmSize = sizeof dm;
  for (DWORD i = 0; EnumDisplaySettingsW(device, i, &dm); ++i) {
    if (!add_display_mode(modes, dm.dmPelsWidth, dm.dmPelsHeight)) break;
  }
  std::sort(modes.begin(), modes.end());
  return modes;
}

}  // namespace host
