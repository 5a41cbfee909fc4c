// The one list of proxymanagerctl's exit statuses. Help texts are made from the list, and a test
// compares the man page with it.
#pragma once

#include <array>
#include <initializer_list>
#include <string>

namespace client {

/// The low numbers are the results of a question to the daemon or to a script. The high numbers
/// come from sysexits.h, so that a shell script can distinguish a wrong PAC script from a wrong
/// command line. A shell uses the last two numbers for the same failures.
enum ExitStatus : int {
  kAnswered = 0,
  kNoAnswer = 1,
  kRefused = 2,
  kUsage = 64,
  kBadData = 65,
  kNoInput = 66,
  kUnavailable = 69,
  kInternal = 70,
  kOutput = 74,
  kTryAgain = 75,
  kProtocol = 76,
  kDenied = 77,
  kCannotRun = 126,
  kNoSuchCommand = 127,
};

struct StatusText {
  ExitStatus status;
  const char* text;  ///< further lines of a text begin after a "\n"
};

inline constexpr std::array<StatusText, 14> kStatusTexts{{
    {kAnswered, "done, with an answer for every URL; every case passed; no finding"},
    {kNoAnswer, "at least one URL got no answer, one case failed, or there is a finding"},
    {kRefused, "a PAC script is refused; standard error has the reason and the\nline"},
    {kUsage, "the command line is wrong, or the address of the message bus"},
    {kBadData, "what was read is no password, URL or file of cases"},
    {kNoInput, "a file cannot be read"},
    {kUnavailable, "the daemon does not run, or there is no message bus"},
    {kInternal, "no memory, or a fault of the program"},
    {kOutput, "the output, or a file of --save, cannot be written"},
    {kTryAgain, "no answer in time, or the daemon is about to end; try again"},
    {kProtocol, "the owner of the daemon's name sent a reply that the daemon never sends"},
    {kDenied,
     "the bus does not allow it; root may do all, and so may members of the\n"
     "group proxymanager, who cannot save or reset settings"},
    {kCannotRun, "exec: the command cannot be run"},
    {kNoSuchCommand, "exec: there is no such command"},
}};

/// The statuses that a command may have if it calls the daemon.
inline constexpr std::initializer_list<ExitStatus> kBusStatuses{
    kUsage, kUnavailable, kInternal, kOutput, kTryAgain, kProtocol, kDenied};

/// Lines of a help text about exit statuses: first the statuses `own`, with the texts of the
/// command; then the statuses `shared`, with the texts of the list in this file.
std::string statusHelp(std::initializer_list<StatusText> own,
                       std::initializer_list<ExitStatus> shared);

/// The whole list as lines of a help text.
std::string statusHelp();

}  // namespace client
