// An engine whose scripts make system calls, so that each restriction of the worker's sandbox is
// tested from inside. It replaces the JavaScript engine; everything else in the worker is real.
//
// The script's text names the action of the load. The text "ready" names no action: the script is
// loaded. The host of a question names the action of the question. If the action does not end the
// process, the answer is "survived".
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <thread>

#include "engine/wire/descriptors.h"
#include "engine/wire/protocol.h"
#include "engine/worker/script_engine.h"
#include "tests/support/raw_calls.h"

namespace pac_worker {

struct ScriptEngine::Impl {
  PacEnvironment& environment;
};

namespace {

constexpr std::size_t kTooMuchMemory = std::size_t{512} << 20U;

#ifdef SYS_mmap
constexpr long kMap = SYS_mmap;
#else  // 32-bit machines use this call instead
constexpr long kMap = SYS_mmap2;
#endif

constexpr long kPage = 4096;
alignas(kPage) char gPages[2 * kPage];

void readClock(int clock) {
  timespec time{};
  call(SYS_clock_gettime, clock, pointer(&time));
}

void sendRaw(std::string_view bytes) {
  send(pac_engine::kWorkerSocket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
}

/// Answers, and then uses CPU time although there is no question. A script that has taken control
/// of the worker could do this.
void burnAfterTheAnswer() {
  sendRaw(pac_engine::encode(pac_engine::FromWorker(pac_engine::Answer{1, "burning"})));
  for (volatile bool on = true; on;) {
  }
}

const std::map<std::string, std::function<void()>, std::less<>>& steps() {
  static const std::map<std::string, std::function<void()>, std::less<>> all{
      {"open", [] { call(SYS_openat, AT_FDCWD, pointer("/etc/passwd"), O_RDONLY); }},
      {"socket", [] { call(SYS_socket, AF_INET, SOCK_STREAM); }},
      {"fork", [] { call(SYS_clone, SIGCHLD); }},
      {"vfork", [] { callVfork(); }},
      {"exec",
       [] {
         const char* const none[] = {nullptr};
         call(SYS_execve, pointer("/bin/true"), pointer(none), pointer(none));
       }},
      {"ptrace", [] { call(SYS_ptrace, PTRACE_ATTACH, getppid()); }},
      {"kill_parent", [] { call(SYS_kill, getppid(), SIGKILL); }},
      {"read",
       [] {
         char byte = 0;
         call(SYS_read, pac_engine::kWorkerSocket, pointer(&byte), 1);
       }},
      {"write_stderr", [] { call(SYS_write, 2, pointer("x"), 1); }},
      {"send_elsewhere", [] { call(SYS_sendto, 2, pointer("x"), 1, MSG_NOSIGNAL); }},
      {"executable_memory",
       [] { call(kMap, 0, 4096, PROT_READ | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1); }},
      {"mapped_file", [] { call(kMap, 0, 4096, PROT_READ, MAP_PRIVATE, 0); }},
      {"shared_memory",
       [] { call(kMap, 0, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1); }},
      {"memory_at_a_place",
       [] {
         call(kMap, pointer(gPages), kPage, PROT_READ | PROT_WRITE,
              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1);
       }},
      {"change_protection", [] { call(SYS_mprotect, pointer(gPages), kPage, PROT_WRITE); }},
      {"move_memory_to_a_place",
       [] {
         call(SYS_mremap, pointer(gPages), kPage, kPage, MREMAP_MAYMOVE | MREMAP_FIXED,
              pointer(gPages + kPage));
       }},
      {"advise_otherwise", [] { call(SYS_madvise, pointer(gPages), kPage, MADV_WILLNEED); }},
      {"own_cpu_time", [] { readClock(CLOCK_PROCESS_CPUTIME_ID); }},
      // The number of a clock that counts the CPU time of process 1.
      {"cpu_time_of_others", [] { readClock(~1 << 3 | 2); }},
      {"boot_time", [] { readClock(CLOCK_BOOTTIME); }},
      {"peek",
       [] {
         char byte = 0;
         call(SYS_recvfrom, pac_engine::kWorkerSocket, pointer(&byte), 1, MSG_PEEK | MSG_DONTWAIT);
       }},
      {"send_out_of_band",
       [] {
         call(SYS_sendto, pac_engine::kWorkerSocket, pointer("x"), 1, MSG_NOSIGNAL | MSG_OOB);
       }},
      {"setuid", [] { call(SYS_setuid, 0); }},
      {"unshare", [] { call(SYS_unshare, 0); }},
      {"crash", [] { raise(SIGSEGV); }},
      {"null_write", [] { *static_cast<volatile int*>(nullptr) = 1; }},
      {"exit", [] { _exit(7); }},
      {"burn_later", [] { burnAfterTheAnswer(); }},
      {"hang",
       [] {
         for (volatile bool on = true; on;) {
         }
       }},
      {"garbage", [] { sendRaw("\x7fgarbage"); }},
      {"too_long", [] { sendRaw(std::string(pac_engine::kMaxMessageBytes + 10, 'x')); }},
      {"early_ready",
       [] { sendRaw(pac_engine::encode(pac_engine::FromWorker(pac_engine::Ready{}))); }},
      {"nothing", [] { sendRaw(""); }},
      {"late_refusal",
       [] {
         sendRaw(pac_engine::encode(pac_engine::FromWorker(pac_engine::Refused{1, "no"})));
       }},
      {"first_answer",
       [] {
         sendRaw(pac_engine::encode(pac_engine::FromWorker(pac_engine::Answer{1, "PROXY a:1"})));
       }},
      {"wrong_serial",
       [] {
         sendRaw(pac_engine::encode(pac_engine::FromWorker(pac_engine::Answer{9999, "PROXY x:1"})));
       }},
      {"alert_flood",
       [] {
         const auto alert = pac_engine::encode(pac_engine::FromWorker(pac_engine::Alert{""}));
         for (;;) send(pac_engine::kWorkerSocket, alert.data(), alert.size(), MSG_NOSIGNAL);
       }},
      {"questions_without_reading",
       [] {
         const auto question = pac_engine::encode(
             pac_engine::FromWorker(pac_engine::OwnAddresses{AddressFamily::kAny}));
         for (;;) send(pac_engine::kWorkerSocket, question.data(), question.size(), MSG_NOSIGNAL);
       }},
  };
  return all;
}

std::string run(std::string_view step) {
  if (step == "memory") {
    // The limit of the address space is the only restriction here that refuses a call and does not
    // kill the process.
    void* const block =
        mmap(nullptr, kTooMuchMemory, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return block == MAP_FAILED ? "refused" : "survived";
  }
  const auto found = steps().find(step);
  if (found == steps().end()) return "unknown step";
  found->second();
  return "survived";
}

}  // namespace

ScriptEngine::ScriptEngine(PacEnvironment& environment, const ScriptLimits&, Preparation*)
    : mImpl(new Impl{environment}) {}
ScriptEngine::~ScriptEngine() = default;

std::optional<Problem> ScriptEngine::load(std::string_view bytes) {
  if (bytes == "ready") return std::nullopt;
  return Problem{run(bytes), 7};
}

Reply ScriptEngine::evaluate(std::string_view url, std::string_view host) {
  if (host == "url") return {std::string(url), {}};
  if (host == "nul") return {std::string("PROXY a:1\0;", 11), {}};
  if (host == "long") return {std::string(pac_engine::kMaxResultBytes, 'x'), {}};
  if (host == "error") return {std::nullopt, {"Error: a\nb", 3}};
  if (host == "alert") mImpl->environment.alert("tab\there");
  return {run(host), {}};
}

}  // namespace pac_worker
