#include "relay/authentication.h"

#include <openssl/evp.h>
#include <sys/random.h>

#include <array>
#include <cstdio>

#include "base/ascii.h"
#include "relay/http_head.h"

namespace relay {

namespace {

using base::equalIgnoringCase;
using Scheme = Challenge::Scheme;

std::string hexOf(const unsigned char* bytes, std::size_t size) {
  std::string text;
  for (std::size_t index = 0; index < size; index++) {
    text += "0123456789abcdef"[bytes[index] >> 4U];
    text += "0123456789abcdef"[bytes[index] & 15U];
  }
  return text;
}

std::string hash(Scheme scheme, const std::string& text) {
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  const EVP_MD* const kind = scheme == Scheme::kDigestSha256 ? EVP_sha256() : EVP_md5();
  if (EVP_Digest(text.data(), text.size(), bytes, &size, kind, nullptr) != 1) return {};
  return hexOf(bytes, size);
}

std::string base64(const std::string& text) {
  std::string coded((text.size() + 2) / 3 * 4 + 1, '\0');
  const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(coded.data()),
                                   reinterpret_cast<const unsigned char*>(text.data()),
                                   static_cast<int>(text.size()));
  coded.resize(static_cast<std::size_t>(size));
  return coded;
}

void skip(std::string_view& text, std::string_view bytes) {
  const auto end = text.find_first_not_of(bytes);
  text.remove_prefix(end == std::string_view::npos ? text.size() : end);
}

std::string_view takeToken(std::string_view& text) {
  std::size_t end = 0;
  while (end < text.size() && isToken(text.substr(end, 1))) end++;
  const auto token = text.substr(0, end);
  text.remove_prefix(end);
  return token;
}

/// Moves a token or the content of a quoted string from the start of `text` to `value`. @return
/// false if the token is empty, or if the string has no end or is too long
bool takeValue(std::string_view& text, std::string& value) {
  if (!text.starts_with('"')) {
    value = std::string(takeToken(text));
    return !value.empty();
  }
  for (std::size_t at = 1; at < text.size(); at++) {
    if (text[at] == '"') {
      text.remove_prefix(at + 1);
      return value.size() <= kMaxChallengeText;
    }
    if (text[at] == '\\' && ++at == text.size()) return false;
    value += text[at];
  }
  return false;
}

void setParameter(Challenge& challenge, std::string_view name, const std::string& value) {
  if (equalIgnoringCase(name, "realm")) challenge.realm = value;
  if (equalIgnoringCase(name, "nonce")) challenge.nonce = value;
  if (equalIgnoringCase(name, "opaque")) challenge.opaque = value;
  if (equalIgnoringCase(name, "stale")) challenge.isStale = equalIgnoringCase(value, "true");
  if (equalIgnoringCase(name, "qop")) {
    challenge.hasQop = anyWord(value, [](auto word) { return equalIgnoringCase(word, "auth"); });
  }
  if (!equalIgnoringCase(name, "algorithm")) return;
  std::string_view algorithm = value;
  challenge.isSession =
      algorithm.size() > 5 && equalIgnoringCase(algorithm.substr(algorithm.size() - 5), "-sess");
  if (challenge.isSession) algorithm.remove_suffix(5);
  challenge.scheme = Scheme::kNone;
  if (equalIgnoringCase(algorithm, "MD5")) challenge.scheme = Scheme::kDigestMd5;
  if (equalIgnoringCase(algorithm, "SHA-256")) challenge.scheme = Scheme::kDigestSha256;
}

Scheme schemeOf(std::string_view name) {
  if (equalIgnoringCase(name, "Basic")) return Scheme::kBasic;
  return equalIgnoringCase(name, "Digest") ? Scheme::kDigestMd5 : Scheme::kNone;
}

/// Removes one challenge, "scheme name=value, ...", from the start of `text`. If the challenge
/// cannot be read, removes the whole `text`.
Challenge takeChallenge(std::string_view& text) {
  Challenge challenge;
  challenge.scheme = schemeOf(takeToken(text));
  while (!text.empty()) {
    skip(text, ", \t");
    auto rest = text;
    const auto name = takeToken(rest);
    if (name.empty()) {
      text = {};
      break;
    }
    skip(rest, " \t");
    if (!rest.starts_with('=')) return challenge;  // the next challenge begins
    rest.remove_prefix(1);
    skip(rest, " \t");
    std::string value;
    if (!takeValue(rest, value)) {
      text = {};
      challenge.scheme = Scheme::kNone;
      break;
    }
    setParameter(challenge, name, value);
    text = rest;
  }
  return challenge;
}

std::string quoted(const std::string& text) {
  std::string result = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') result += '\\';
    result += c;
  }
  return result + '"';
}

std::string digestFor(const Challenge& challenge, const Credentials& credentials,
                      std::string_view method, std::string_view uri, std::string_view clientNonce,
                      unsigned count) {
  char times[9];
  std::snprintf(times, sizeof(times), "%08x", count);
  const std::string client(clientNonce);
  const auto of = [&](const std::string& text) { return hash(challenge.scheme, text); };
  std::string first = of(credentials.user + ":" + challenge.realm + ":" + credentials.password);
  if (challenge.isSession) first = of(first + ":" + challenge.nonce + ":" + client);
  const std::string second = of(std::string(method) + ":" + std::string(uri));
  const std::string middle =
      challenge.hasQop ? challenge.nonce + ":" + times + ":" + client + ":auth" : challenge.nonce;
  std::string text =
      "Digest username=" + quoted(credentials.user) + ", realm=" + quoted(challenge.realm) +
      ", nonce=" + quoted(challenge.nonce) + ", uri=" + quoted(std::string(uri)) +
      ", algorithm=" + (challenge.scheme == Scheme::kDigestSha256 ? "SHA-256" : "MD5") +
      (challenge.isSession ? "-sess" : "") +
      ", response=" + quoted(of(first + ":" + middle + ":" + second));
  if (challenge.hasQop || challenge.isSession) text += ", cnonce=" + quoted(client);
  if (challenge.hasQop) text += std::string(", qop=auth, nc=") + times;
  if (!challenge.opaque.empty()) text += ", opaque=" + quoted(challenge.opaque);
  return text;
}

}  // namespace

Challenge readChallenges(const std::vector<std::string_view>& values) {
  Challenge best;
  for (auto text : values) {
    while (!text.empty()) {
      skip(text, ", \t");
      if (text.empty()) break;
      auto challenge = takeChallenge(text);
      const bool isUsable = challenge.scheme == Scheme::kBasic || !challenge.nonce.empty();
      if (isUsable && challenge.scheme > best.scheme) best = std::move(challenge);
    }
  }
  return best;
}

std::string authorizationFor(const Challenge& challenge, const Credentials& credentials,
                             std::string_view method, std::string_view uri,
                             std::string_view clientNonce, unsigned count) {
  switch (challenge.scheme) {
    case Scheme::kBasic:
      return "Basic " + base64(credentials.user + ":" + credentials.password);
    case Scheme::kDigestMd5:
    case Scheme::kDigestSha256:
      return digestFor(challenge, credentials, method, uri, clientNonce, count);
    case Scheme::kNone:
      break;
  }
  return {};
}

std::string newClientNonce() {
  std::array<unsigned char, 16> bytes{};
  if (getrandom(bytes.data(), bytes.size(), 0) < 0) return "0";
  return hexOf(bytes.data(), bytes.size());
}

}  // namespace relay
