#include "tests/support/private_bus.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace {

constexpr const char* kConfig = R"(<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>system</type><listen>unix:path=%/bus</listen><auth>EXTERNAL</auth>
<policy context="default"><allow user="*"/><allow own="*"/>
<allow send_destination="*"/><allow receive_sender="*"/></policy>)";

}  // namespace

PrivateBus::PrivateBus(const std::string& extra) {
  std::string pattern = (std::filesystem::temp_directory_path() / "bus_XXXXXX").string();
  mFolder = mkdtemp(pattern.data());
  std::string config = kConfig;
  config.replace(config.find('%'), 1, mFolder);
  std::ofstream(mFolder + "/bus.conf") << config << extra << "</busconfig>";
  setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + mFolder + "/bus").c_str(), 1);
  start();
}

void PrivateBus::start() {
  const std::string config = "--config-file=" + mFolder + "/bus.conf";
  int ready[2];
  if (pipe(ready) != 0) throw std::runtime_error("pipe");
  mPid = fork();  // other threads may run, so the child process must not allocate memory
  if (mPid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // the bus ends with its test
    dup2(ready[1], STDOUT_FILENO);
    close(ready[0]);
    close(ready[1]);
    execlp("dbus-daemon", "dbus-daemon", config.c_str(), "--nofork", "--nopidfile",
           "--print-address=1", nullptr);
    _exit(127);
  }
  close(ready[1]);
  char byte = 0;
  const bool listens = read(ready[0], &byte, 1) == 1;  // the bus writes its address when it listens
  close(ready[0]);
  if (!listens) throw std::runtime_error("dbus-daemon does not start");
}

PrivateBus::~PrivateBus() {
  kill();
  std::filesystem::remove_all(mFolder);
}

void PrivateBus::pause() const {
  ::kill(mPid, SIGSTOP);
  waitpid(mPid, nullptr, WUNTRACED);
}

void PrivateBus::goOn() const {
  ::kill(mPid, SIGCONT);
}

void PrivateBus::kill() {
  if (mPid <= 0) return;
  ::kill(mPid, SIGKILL);
  waitpid(mPid, nullptr, 0);
  mPid = -1;
}
