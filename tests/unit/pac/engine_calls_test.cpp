// Tests the parser with an engine that records its calls, and with a digest that can fail.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <gtest/gtest.h>
#include <openssl/md5.h>
#include <syslog.h>

#include <cstring>
#include <string>
#include <vector>

#include "engine/pac.h"
#include "pac/pac_parser.h"
#include "tests/support/log_capture.h"
#include "tests/unit/pac/script_on_disk.h"

struct pac {
  int number;
};

namespace {

std::vector<std::string> calls;
int engines = 0;
bool digestWorks = true;

}  // namespace

// These functions replace those of libcrypto. All scripts have the same digest. If digestWorks is
// false, MD5_Init fails.
int MD5_Init(MD5_CTX*) {
  return digestWorks ? 1 : 0;
}
int MD5_Update(MD5_CTX*, const void*, std::size_t) {
  return 1;
}
int MD5_Final(unsigned char* digest, MD5_CTX*) {
  std::memset(digest, 1, MD5_DIGEST_LENGTH);
  return 1;
}

// This function and those below replace the five functions of engine/pac.h. The first three record
// their calls.
pac* pac_init(const char* script, int option, pac_wakeup, void*) {
  calls.push_back("init " + std::string(script == nullptr ? "(null)" : script) + " option " +
                  std::to_string(option));
  return script == nullptr ? nullptr : new pac{++engines};
}
void pac_free(pac* engine) {
  calls.push_back("free " + std::to_string(engine->number));
  delete engine;
}
void pac_find_proxy_sync_n(pac* engine, const char* url, const char* host, char** result) {
  calls.push_back("find " + std::to_string(engine->number) + " " + url + " host '" + host + "'");
  *result = strdup("DIRECT");
}
void pac_find_proxy(pac*, const char*, const char*, pac_result, void*) {}
void pac_run_callbacks(pac*) {}

namespace {

using Calls = std::vector<std::string>;

TEST(EngineCalls, TheOldEngineIsFreedBeforeTheNewOneIsMade) {
  const ScriptOnDisk file("one");
  {
    PacParser parser(nullptr, false);
    parser.parsePacFile(file.path());
    file.write("two");
    parser.parsePacFile(file.path());
    parser.stop();
    EXPECT_EQ(calls, (Calls{"init one option 1", "free 1", "init two option 1", "free 2"}));
  }
  EXPECT_EQ(calls.size(), 4U) << "nothing is freed twice";
}

TEST(EngineCalls, TheOfflineOptionIsFour) {
  const ScriptOnDisk file("one");
  PacParser parser(nullptr, true);
  parser.parsePacFile(file.path());
  EXPECT_EQ(calls, Calls{"init one option 4"});
}

TEST(EngineCalls, AnEmptyFileGivesANullScript) {
  const ScriptOnDisk file("");
  PacParser parser(nullptr, false);
  parser.parsePacFile(file.path());
  EXPECT_EQ(calls, Calls{"init (null) option 1"});
}

TEST(EngineCalls, TheEngineIsAskedWithTheUrlAsItCameAndTheHost) {
  const ScriptOnDisk file("one");
  PacParser parser(nullptr, false);
  parser.parsePacFile(file.path());
  calls.clear();
  parser.getProxy("http://user:secret@h/x#y");
  parser.getProxy("http://:80/");
  parser.getProxy("HTTP://Host.Example:8080/x");
  EXPECT_EQ(calls,
            (Calls{"find 1 http://user:secret@h/x#y host 'user'", "find 1 http://:80/ host ''",
                   "find 1 HTTP://Host.Example:8080/x host 'Host.Example'"}));
}

// Without a digest, the parser cannot know whether the script is another one, so it must not keep
// the answers.
TEST(EngineCalls, AScriptWithoutADigestCountsAsNew) {
  const std::string isNew = "PacParser-readPacFile content of pac file has been updated, notify";
  const ScriptOnDisk file("one");
  PacParser parser(nullptr, false);
  parser.parsePacFile(file.path());
  parser.parsePacFile(file.path());
  EXPECT_EQ(countLog(LOG_NOTICE, isNew), 1);
  digestWorks = false;
  unsigned char digest[PacParser::kDigestLength] = {7};
  EXPECT_FALSE(PacParser::doMd5Hash(digest, "one", 3));
  EXPECT_EQ(digest[0], 7);
  parser.parsePacFile(file.path());
  parser.parsePacFile(file.path());
  EXPECT_EQ(countLog(LOG_NOTICE, isNew), 3);
  digestWorks = true;
  parser.parsePacFile(file.path());
  parser.parsePacFile(file.path());
  EXPECT_EQ(countLog(LOG_NOTICE, isNew), 4);
}

}  // namespace
