// Reads the script's file, checks whether the script has changed, and makes a new engine.

#define OPENSSL_SUPPRESS_DEPRECATED  // the digest is only used to compare files
#include <fcntl.h>
#include <openssl/md5.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "base/log_line.h"
#include "base/unique_fd.h"
#include "pac/pac_parser.h"
#include "pac/service_callbacks.h"

namespace {

constexpr std::size_t kFirstBuffer = 8192;

// Every user may write in the script's folder. So a file of another user is not read, and opening a
// fifo does not block. A folder is not refused here, because reading it fails without harm. A file
// with a second name (hard link) is accepted. If such a file were refused, any user who may make
// hard links could block every script.
base::UniqueFd openScript(const std::string& fileName) {
  base::UniqueFd file(open(fileName.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  const bool isOurs = file && fstat(file.get(), &status) == 0 &&
                      (S_ISREG(status.st_mode) || S_ISDIR(status.st_mode)) &&
                      (status.st_uid == 0 || status.st_uid == geteuid());
  if (!isOurs) file.reset();
  return file;
}

}  // namespace

/// The bytes that were read from the script's file. The buffer is allocated with malloc, which
/// reports exhausted memory as a return value and not as an exception.
class PacParser::ReadBuffer {
 public:
  /// Reads `file` to its end. @return whether the reading succeeded; if not, a log line has the
  /// reason
  bool readAll(int file, const std::string& fileName) {
    mData.reset(static_cast<char*>(std::calloc(kFirstBuffer, 1)));
    if (mData == nullptr) return outOfMemory(fileName);
    mCapacity = kFirstBuffer;
    while (true) {
      const ssize_t count = read(file, mData.get() + mLength, mCapacity - mLength);
      if (count == 0) return true;
      if (count < 0) {
        logLine(LOG_ERR, "PacParser-readPacFile error reading from file %s, rc:%d",
                fileName.c_str(), static_cast<int>(count));
        return false;
      }
      mLength += static_cast<std::size_t>(count);
      if (mLength == mCapacity && !grow()) return outOfMemory(fileName);
    }
  }

  const char* data() const { return mData.get(); }
  std::size_t length() const { return mLength; }

 private:
  bool grow() {
    auto* larger = static_cast<char*>(std::realloc(mData.get(), mCapacity * 2));
    if (larger == nullptr) return false;
    [[maybe_unused]] const char* moved = mData.release();
    mData.reset(larger);
    mCapacity *= 2;
    return true;
  }

  static bool outOfMemory(const std::string& fileName) {
    logLine(LOG_ERR, "PacParser-readPacFile error allocating memory for pac file %s",
            fileName.c_str());
    return false;
  }

  HeapText mData;
  std::size_t mCapacity = 0;
  std::size_t mLength = 0;
};

int PacParser::parsePacFile(const std::string& fileName) {
  logLine(LOG_INFO, "PacParser-parsePacFile called ");
  if (fileName.empty()) {
    logLine(LOG_ERR, "PacParser-parsePacFile error pac file name is empty");
    return 0;
  }
  ReloadGate gate(mAnswerGate, std::defer_lock);
  if (readPacFile(fileName, gate) == 0) {
    logLine(LOG_ERR, "PacParser-parsePacFile failed to read pac file name");
    return 0;
  }
  const Lock lock(mEngineMutex);
  mHasEngine = false;
  mPac.reset();  // released first: each engine has a worker process
  mPac.reset(pac_init(mPacContent.get(), mPacInitOption ? PAC_OPTION_OFFLINE : PAC_OPTION_ONLINE,
                      notify, this));
  logLine(LOG_INFO, "PacParser-parsePacFile pac init");
  if (mPac == nullptr) logLine(LOG_ERR, "PacParser-parsePacFile pac init, mpac is null");
  mHasEngine = mPac != nullptr;
  return 0;
}

int PacParser::readPacFile(const std::string& fileName) {
  ReloadGate gate(mAnswerGate, std::defer_lock);
  return readPacFile(fileName, gate);
}

int PacParser::readPacFile(const std::string& fileName, ReloadGate& gate) {
  logLine(LOG_INFO, "PacParser-readPacFile called ");
  logLine(LOG_NOTICE, "PacParser-readPacFile PAC file name:%s", fileName.c_str());
  const base::UniqueFd file = openScript(fileName);
  if (!file) {
    logLine(LOG_ERR, "PacParser-readPacFile error opening file %s", fileName.c_str());
    return 0;
  }
  ReadBuffer content;
  bool read = false;
  {
    const Lock lock(mEngineMutex);
    mPacContent.reset();
    read = content.readAll(file.get(), fileName);
  }
  if (read) {
    gate.lock();
    compareDigest(content);
  }
  const Lock lock(mEngineMutex);
  mPacContent.reset(string2Char(content.data(), static_cast<std::int32_t>(content.length())));
  logLine(LOG_NOTICE, "PacParser-readPacFile content of pac file: \n%s", mPacContent.get());
  return read ? 1 : 0;
}

// The digest is treated as a C string on purpose: for the comparison and the stored copy, it ends
// at its first zero byte.
void PacParser::compareDigest(const ReadBuffer& content) {
  unsigned char digest[kDigestLength + 1] = {};
  // If the digest cannot be made, the script counts as new, so that its answers are not mixed with
  // answers of another script.
  const bool hasDigest = doMd5Hash(digest, content.data(), content.length());
  if (content.length() == 0) return;
  const char* text = hasDigest ? reinterpret_cast<const char*>(digest) : nullptr;
  if (hasDigest && mPacHash != nullptr && std::strcmp(mPacHash.get(), text) == 0) {
    logLine(LOG_NOTICE, "PacParser-readPacFile contents of old and new pac files are the same");
    return;
  }
  mPacHash.reset(heapCopy(text));
  logLine(LOG_NOTICE, "PacParser-readPacFile content of pac file has been updated, notify");
  clearProxyUrlCache();
  service_callbacks::notifyContentUpdated(mServiceImpl);
}

bool PacParser::doMd5Hash(unsigned char* digest, const void* data, std::size_t length) {
  logLine(LOG_INFO, "PacParser-doMd5Hash called ");
  if (digest == nullptr || data == nullptr || length == 0) return false;
  MD5_CTX context;
  return MD5_Init(&context) == 1 && MD5_Update(&context, data, length) == 1 &&
         MD5_Final(digest, &context) == 1;
}
