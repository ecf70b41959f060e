// Raw mode with a guaranteed way back. The original settings are kept in
// plain statics so the signal handlers can restore them with nothing but
// tcsetattr and write.
#include "host/posix/tty.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace host::tty {

namespace {

termios saved;
std::atomic<bool> raw{false};
char leave_seq[128];
std::size_t leave_len = 0;
int wake_pipe[2] = {-1, -1};  // signal handlers -> read_input
std::atomic<unsigned> pending_events{0};

constexpr int kFatal[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE};
struct sigaction previous[sizeof kFatal / sizeof kFatal[0]];

void poke() {
  if (wake_pipe[1] >= 0) {
    const char b = 0;
    const ssize_t r = write(wake_pipe[1], &b, 1);  // a full pipe already wakes the reader
    (void)r;
  }
}

void on_winch(int) {
  const int saved_errno = errno;
  pending_events.fetch_or(kResized);
  poke();
  errno = saved_errno;
}

void on_interrupt(int) {
  // kill -INT from outside: a break, as Ctrl+C at the keyboard.
  const int saved_errno = errno;
  pending_events.fetch_or(kInterrupt);
  poke();
  errno = saved_errno;
}

void on_fatal(int sig, siginfo_t* info, void*) {
  restore();
  for (std::size_t i = 0; i < sizeof kFatal / sizeof kFatal[0]; ++i)
    if (kFatal[i] == sig) sigaction(sig, &previous[i], nullptr);
  // A fault returns to the faulting instruction, which faults again under
  // the previous handler; a signal sent by someone is sent again.
  const bool fault = info && info->si_code > 0 &&
                     (sig == SIGSEGV || sig == SIGBUS || sig == SIGFPE || sig == SIGILL);
  if (!fault) raise(sig);
}

void restore_at_exit() { restore(); }

}  // namespace

bool interactive() { return isatty(0) == 1 && isatty(1) == 1; }

bool enter_raw(const char* enter, const char* leave) {
  if (raw.load()) return true;
  if (tcgetattr(0, &saved) != 0) return false;
  termios t = saved;
  t.c_iflag &= ~static_cast<tcflag_t>(BRKINT | ICRNL | INPCK | ISTRIP | IXON);
  t.c_oflag &= ~static_cast<tcflag_t>(OPOST);
  t.c_cflag |= CS8;
  t.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON | IEXTEN | ISIG);
  t.c_cc[VMIN] = 1;
  t.c_cc[VTIME] = 0;
  leave_len = std::strlen(leave);
  if (leave_len >= sizeof leave_seq) leave_len = sizeof leave_seq - 1;
  std::memcpy(leave_seq, leave, leave_len);
  if (pipe(wake_pipe) == 0) {
    for (int fd : wake_pipe) {
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
      fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
  }
  // Handlers first: from the moment the terminal is raw, every way out restores it.
  std::atexit(restore_at_exit);
  for (std::size_t i = 0; i < sizeof kFatal / sizeof kFatal[0]; ++i) {
    struct sigaction sa {};
    sigaction(kFatal[i], nullptr, &previous[i]);
    if (previous[i].sa_handler == SIG_IGN) continue;  // e.g. SIGHUP under nohup, SIGPIPE
    sa.sa_sigaction = on_fatal;
    sa.sa_flags = SA_SIGINFO;
    sigemptyset(&sa.sa_mask);
    sigaction(kFatal[i], &sa, nullptr);
  }
  struct sigaction sa {};
  sigemptyset(&sa.sa_mask);
  sa.sa_flags = SA_RESTART;
  sa.sa_handler = on_winch;
  sigaction(SIGWINCH, &sa, nullptr);
  sa.sa_handler = on_interrupt;
  sigaction(SIGINT, &sa, nullptr);
  if (tcsetattr(0, TCSAFLUSH, &t) != 0) return false;
  raw.store(true);
  write_all(enter, std::strlen(enter));
  return true;
}

void restore() {
  if (!raw.exchange(false)) return;
  write_all(leave_seq, leave_len);
  tcsetattr(0, TCSAFLUSH, &saved);
}

bool size(std::uint32_t* cols, std::uint32_t* rows) {
  winsize ws {};
  if (ioctl(1, TIOCGWINSZ, &ws) != 0 || ws.ws_col == 0 || ws.ws_row == 0) return false;
  *cols = ws.ws_col;
  *rows = ws.ws_row;
  return true;
}

int read_input(unsigned char* buf, int cap, int timeout_ms, unsigned* events) {
  *events = pending_events.exchange(0);
  if (*events) return 0;
  pollfd fds[2] = {{0, POLLIN, 0}, {wake_pipe[0], POLLIN, 0}};
  const int n = poll(fds, wake_pipe[0] >= 0 ? 2 : 1, timeout_ms);
  if (n <= 0) return 0;  // time-out, or a signal (its event is picked up next time)
  if (fds[1].revents & POLLIN) {
    char drain[64];
    while (read(wake_pipe[0], drain, sizeof drain) > 0) {
    }
    *events |= pending_events.exchange(0);
  }
  if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
    const ssize_t got = read(0, buf, static_cast<std::size_t>(cap));
    if (got > 0) return static_cast<int>(got);
    if (got == 0 || (errno != EINTR && errno != EAGAIN)) *events |= kInputEnded;
  }
  return 0;
}

void write_all(const char* p, std::size_t n) {
  while (n > 0) {
    const ssize_t w = write(1, p, n);
    if (w < 0) {
      if (errno == EINTR) continue;
      return;
    }
    p += w;
    n -= static_cast<std::size_t>(w);
  }
}

}  // namespace host::tty
