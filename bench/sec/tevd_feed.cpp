// Feeds a text corpus ("TIMESTAMP ID ARG...", one observation a line) to the
// real tevd under a private root and writes every event it posts, one line
// "ID ARG..." each, so that the multiset can be compared with SEC's output.
//   tevd_feed ROOT TEVD CPU CORPUS EVENTS_OUT
// The daemon is pinned to CPU (sched_setaffinity before exec). The run ends
// when every observation's log line arrived at the root's dev/log and no event
// came for 3 s (the link-down reports settle 1 s after their observation).
// Prints "RESULT tevd_cpu_s X" (utime+stime of the daemon from the first send
// to the end, from /proc/PID/stat), the stime part alone and the counts.
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "MsgFmt.h"
#include "PlatformSocket.h"
#include "Qprob.h"
#include "TevRecord.h"

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void Die(const std::string &why) {
  fprintf(stderr, "tevd_feed: %s\n", why.c_str());
  exit(1);
}

// Stream sockets listen (backlog 64) as well.
int Bind(const std::string &root, PlatformEndpoint endpoint, int type) {
  std::string path = PlatformEndpoint_PathUnder(root, endpoint);
  int fd = PlatformSocket_Listen(path, type);
  if (fd < 0) Die("cannot bind " + path + ": " + strerror(errno));
  return fd;
}

// utime+stime in seconds; *system gets stime alone.
double CpuSeconds(pid_t pid, double *system = nullptr) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
  std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::istringstream rest(all.substr(all.rfind(')') + 2));
  std::string f;
  unsigned long long ut = 0, st = 0;
  for (int i = 3; rest >> f; ++i) {
    if (i == 14) ut = std::stoull(f);
    if (i == 15) {
      st = std::stoull(f);
      break;
    }
  }
  double tick = static_cast<double>(sysconf(_SC_CLK_TCK));
  if (system != nullptr) *system = static_cast<double>(st) / tick;
  return static_cast<double>(ut + st) / tick;
}

// The argument types of each observation of the corpus, by identifier.
std::vector<MsgFmt_Value> Args(const std::string &id, const std::vector<std::string> &words) {
  std::vector<MsgFmt_Value> out;
  bool ints = id.rfind("tev.clock.", 0) == 0 || id == "tev.cpu.thermal.throttle";
  for (const std::string &w : words) {
    out.push_back(ints ? MsgFmt_Value::I32(std::stoi(w)) : MsgFmt_Value::Str(w));
  }
  return out;
}

std::string Format(const QprobMessage &m) {
  std::string s = m.id;
  for (const MsgFmt_Value &v : m.args) {
    s += ' ';
    if (!v.str.empty() || v.isNull) s += v.str;
    else s += std::to_string(static_cast<int64_t>(v.bits));
  }
  return s;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 6) Die("usage: tevd_feed ROOT TEVD CPU CORPUS EVENTS_OUT");
  std::string root = argv[1], tevd = argv[2], corpusPath = argv[4];
  int cpu = atoi(argv[3]);
  signal(SIGPIPE, SIG_IGN);

  // Corpus, encoded up front so that encoding is not in the daemon's window.
  std::vector<std::vector<uint8_t>> records;
  {
    std::ifstream in(corpusPath);
    std::string line;
    while (std::getline(in, line)) {
      std::istringstream ws(line);
      std::string ts, id, w;
      ws >> ts >> id;
      std::vector<std::string> words;
      while (ws >> w) words.push_back(w);
      records.push_back(TevRecord_Encode(id, id + " observed", std::stoull(ts), Args(id, words)));
    }
  }

  // dev/log: counts observation lines ("us: [tev.").
  int logFd = Bind(root, PlatformEndpoint::LogCollector, SOCK_DGRAM);
  int big = 4 << 20;
  setsockopt(logFd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
  std::atomic<long> observed{0};
  std::atomic<bool> stop{false};
  std::thread logger([&] {
    char buf[8192];
    while (!stop) {
      pollfd p = {logFd, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      ssize_t n;
      while ((n = recv(logFd, buf, sizeof buf, MSG_DONTWAIT)) > 0) {
        // Both the net and clock agents log the observations they take; the
        // corpus's noise goes to the cpu agent. Each observation is taken by
        // exactly one agent here, so one line per observation.
        if (memmem(buf, static_cast<size_t>(n), "us: [tev.", 9) != nullptr) ++observed;
      }
    }
  });

  // qprob listener: one connection per event.
  int qFd = Bind(root, PlatformEndpoint::QprobAgent, SOCK_STREAM);
  std::mutex m;
  std::vector<std::string> events;
  Clock::time_point lastEvent = Clock::now();
  std::thread listener([&] {
    while (!stop) {
      pollfd p = {qFd, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      int c = accept(qFd, nullptr, nullptr);
      if (c < 0) continue;
      std::string bytes;
      char buf[4096];
      ssize_t n;
      while ((n = read(c, buf, sizeof buf)) > 0) bytes.append(buf, static_cast<size_t>(n));
      close(c);
      QprobMessage msg;
      std::string why;
      std::string line =
          Qprob_Decode(bytes.data(), bytes.size(), &msg, &why) ? Format(msg) : "bad " + why;
      std::lock_guard<std::mutex> g(m);
      events.push_back(line);
      lastEvent = Clock::now();
    }
  });

  const std::string userSock = PlatformEndpoint_PathUnder(root, PlatformEndpoint::UserContext);
  unlink(userSock.c_str());
  pid_t pid = fork();
  if (pid == 0) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    sched_setaffinity(0, sizeof set, &set);
    setenv("TEVD_ROOT", root.c_str(), 1);
    std::string out = root + "/tevd.out";
    if (!freopen(out.c_str(), "a", stdout) || !freopen(out.c_str(), "a", stderr)) _exit(126);
    execl(tevd.c_str(), tevd.c_str(), static_cast<char *>(nullptr));
    _exit(127);
  }
  for (int i = 0; access(userSock.c_str(), F_OK) != 0; ++i) {
    if (i > 6000) Die("tevd did not start");
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(800));  // agents subscribe
  long before = observed.load();

  double sys0 = 0;
  double cpu0 = CpuSeconds(pid, &sys0);
  Clock::time_point t0 = Clock::now();
  int fd = PlatformSocket_Connect(
      PlatformEndpoint_PathUnder(root, PlatformEndpoint::AsyncContext, 0), SOCK_DGRAM);
  if (fd < 0) Die("cannot connect");
  for (const auto &r : records) {
    while (send(fd, r.data(), r.size(), 0) < 0) {
      if (errno != EINTR && errno != EAGAIN) Die(std::string("send: ") + strerror(errno));
    }
  }
  long want = before + static_cast<long>(records.size());
  long seen = -1;
  for (Clock::time_point p = Clock::now(); observed.load() < want;) {
    if (observed.load() != seen) {
      seen = observed.load();
      p = Clock::now();
    } else if (std::chrono::duration<double>(Clock::now() - p).count() > 30) {
      fprintf(stderr, "tevd_feed: only %ld of %zu observations logged\n", observed.load() - before,
              records.size());
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  double handledAt = std::chrono::duration<double>(Clock::now() - t0).count();
  for (;;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    std::lock_guard<std::mutex> g(m);
    if (std::chrono::duration<double>(Clock::now() - lastEvent).count() > 3) break;
  }
  double sys1 = 0;
  double cpuS = CpuSeconds(pid, &sys1) - cpu0;
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
  stop = true;
  logger.join();
  listener.join();
  FILE *out = fopen(argv[5], "w");
  for (const std::string &e : events) fprintf(out, "%s\n", e.c_str());
  fclose(out);
  printf("RESULT tevd_observations %zu\nRESULT tevd_logged %ld\nRESULT tevd_events %zu\n",
         records.size(), observed.load() - before, events.size());
  printf("RESULT tevd_cpu_s %.3f\nRESULT tevd_system_s %.3f\nRESULT tevd_handled_after_s %.3f\n",
         cpuS, sys1 - sys0, handledAt);
  return 0;
}
