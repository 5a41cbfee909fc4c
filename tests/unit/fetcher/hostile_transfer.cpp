// A transfer that an attacker controls. It replaces libcurl's transfer; everything else in the
// fetch process is real, including the sandbox. The URL chooses the attack.
#include <fcntl.h>
#include <linux/netlink.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <thread>

#include "fetcher/child/transfer.h"
#include "tests/support/raw_calls.h"

namespace {

using fetcher::FetchResult;

// Read before the process enters its sandbox, because the sandbox does not allow this call.
const pid_t kParent = getppid();

// Old headers of the C library do not define this number.
constexpr long kMultipathTcp = 262;

const FetchResult kLie{true, 200, "HTTP", ""};

void sendRaw(const std::string& bytes) {
  send(fetcher::kFetchSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

[[noreturn]] void hang() {
  // A wait that the sandbox allows: pause() would end the process.
  for (;;) poll(nullptr, 0, -1);
}

void openFile(const char* path, int flags) {
  const int fd = open(path, flags | O_CLOEXEC, 0600);
  if (fd < 0) _exit(errno == EACCES ? 40 : 41);
}

/// The attacks by name. Each either ends the process or returns.
const std::map<std::string, std::function<void(int file)>>& steps() {
  static const std::map<std::string, std::function<void(int)>> all{
      // Packets.
      {"garbage", [](int) { sendRaw("garbage"); }},
      {"nothing", [](int) { _exit(0); }},
      {"ready_again", [](int) { sendRaw(encode(fetcher::FetchReady{})); }},
      {"ten",
       [](int) {
         for (int i = 0; i < 10; ++i) sendRaw(encode(kLie));
       }},
      {"too_long", [](int) { sendRaw(encode(kLie) + std::string(70000, 'x')); }},
      {"flood",
       [](int) {
         for (;;) sendRaw(encode(kLie));
       }},
      {"close_all",
       [](int) {
         for (int fd = 0; fd < 64; ++fd) close(fd);
         for (volatile bool on = true; on;) {
         }
       }},
      {"result_and_stay",
       [](int) {
         sendRaw(encode(kLie));
         hang();
       }},
      // The daemon reads a result and the end of the socket, but the process continues to run.
      {"result_and_live_on",
       [](int) {
         sendRaw(encode(kLie));
         close(fetcher::kFetchSocket);
         hang();
       }},
      {"hang", [](int) { hang(); }},
      {"spin",
       [](int) {
         for (volatile bool on = true; on;) {
         }
       }},
      {"crash", [](int) { *static_cast<volatile int*>(nullptr) = 1; }},
      // The file.
      {"fill_file",
       [](int file) {
         const std::string block(65536, 'x');
         while (write(file, block.data(), block.size()) > 0) {
         }
         sendRaw(encode(kLie));
         _exit(0);
       }},
      {"longer_file", [](int file) { call(SYS_ftruncate, file, 1 << 30); }},
      // System calls that are on no list of the filter.
      {"fork", [](int) { call(SYS_clone, SIGCHLD); }},
      {"vfork", [](int) { callVfork(); }},
      {"exec",
       [](int) {
         const char* const none[] = {nullptr};
         call(SYS_execve, pointer("/bin/true"), pointer(none), pointer(none));
       }},
      {"kill_parent", [](int) { call(SYS_kill, kParent, SIGKILL); }},
      {"ptrace", [](int) { call(SYS_ptrace, PTRACE_ATTACH, kParent); }},
      {"read_parent", [](int) { call(SYS_process_vm_readv, kParent); }},
      {"raw_socket", [](int) { call(SYS_socket, AF_PACKET, SOCK_RAW); }},
      {"other_netlink", [](int) { call(SYS_socket, AF_NETLINK, SOCK_RAW, NETLINK_AUDIT); }},
      {"multipath", [](int) { call(SYS_socket, AF_INET, SOCK_STREAM, kMultipathTcp); }},
      {"udp_lite", [](int) { call(SYS_socket, AF_INET6, SOCK_DGRAM, IPPROTO_UDPLITE); }},
      {"ping", [](int) { call(SYS_socket, AF_INET, SOCK_DGRAM, IPPROTO_ICMP); }},
      {"cpu_time_of_others",
       [](int) {
         timespec time{};
         call(SYS_clock_gettime, ~1L << 3 | 2, pointer(&time));
       }},
      {"processors_of_others",
       [](int) {
         cpu_set_t processors{};
         call(SYS_sched_getaffinity, kParent, sizeof processors, pointer(&processors));
       }},
      {"timer", [](int) { call(SYS_timer_delete, 0); }},
      {"datagram_pair", [](int) { call(SYS_socketpair, AF_UNIX, SOCK_DGRAM); }},
      {"listen", [](int) { call(SYS_listen, fetcher::kFetchSocket, 1); }},
      {"executable_memory",
       [](int) { mmap(nullptr, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0); }},
      {"memory_file", [](int) { call(SYS_memfd_create, pointer("x"), 0); }},
      {"setuid", [](int) { call(SYS_setuid, 0); }},
      {"unshare", [](int) { call(SYS_unshare, CLONE_NEWUSER); }},
      {"write_open", [](int) { openFile("/tmp/written", O_WRONLY | O_CREAT); }},
      {"chmod", [](int) { call(SYS_fchmodat, AT_FDCWD, pointer("/tmp"), 0777); }},
      {"unlink", [](int) { call(SYS_unlinkat, AT_FDCWD, pointer("/tmp/x")); }},
      // System calls that are refused and do not end the process.
      {"bus",
       [](int) {
         const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
         _exit(fd < 0 && errno == EAFNOSUPPORT ? 40 : 41);
       }},
      {"read_passwd", [](int) { openFile("/etc/passwd", O_RDONLY); }},
      {"read_parents_memory",
       [](int) { openFile(("/proc/" + std::to_string(kParent) + "/mem").c_str(), O_RDONLY); }},
      {"memory",
       [](int) {
         void* const block = mmap(nullptr, std::size_t{256} << 20U, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
         _exit(block == MAP_FAILED ? 40 : 41);
       }},
      {"descriptors",
       [](int) {
         int count = 0;
         while (socket(AF_INET, SOCK_DGRAM, 0) >= 0) ++count;
         _exit(count < 64 ? 40 : 41);
       }},
      {"thread",
       [](int) {
         std::thread([] {}).join();
         _exit(40);
       }},
  };
  return all;
}

}  // namespace

namespace fetch_child {

FetchResult transfer(CURL*, const fetcher::FetchRequest& request, int fd) {
  const auto step = steps().find(request.url);
  if (step == steps().end()) return {false, 0, "", "unknown step"};
  step->second(fd);
  return {false, 0, "", "survived"};
}

}  // namespace fetch_child
