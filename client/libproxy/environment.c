#include "client/libproxy/environment.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The value of the first of the two variables that is set. If its value is empty, the second
 * variable is still ignored. */
static const char* variable(const char* lower, const char* upper) {
  const char* const value = secure_getenv(lower);
  return value != NULL ? value : secure_getenv(upper);
}

static const char* http_variable(void) {
  if (secure_getenv("REQUEST_METHOD") != NULL) return secure_getenv("http_proxy");
  return variable("http_proxy", "HTTP_PROXY");
}

static char lower(char c) {
  return c >= 'A' && c <= 'Z' ? (char)(c - 'A' + 'a') : c;
}

int px_equal_ignoring_case(const char* a, const char* b, size_t most) {
  size_t i = 0;
  while (i < most && a[i] != '\0' && lower(a[i]) == lower(b[i])) i++;
  return i == most || lower(a[i]) == lower(b[i]);
}

static int has_scheme(const char* url, const char* scheme) {
  const size_t length = strlen(scheme);
  return px_equal_ignoring_case(url, scheme, length) && strncmp(url + length, "://", 3) == 0;
}

static const char* proxy_variable(const char* url) {
  const char* value = NULL;
  if (has_scheme(url, "https")) value = variable("https_proxy", "HTTPS_PROXY");
  if (has_scheme(url, "ftp")) value = variable("ftp_proxy", "FTP_PROXY");
  return value != NULL ? value : http_variable();
}

/* --- Hosts --- */

/* A host and its port. The host points into the text that place_of() got. */
typedef struct {
  char* host;    /* without brackets */
  unsigned port; /* 0 if there is none */
} Place;

/* Splits `text`, which is "host:1", "[::1]:1", "::1" or "host". The function changes the text. */
static Place place_of(char* text) {
  Place place = {text, 0};
  char* colon = strrchr(text, ':');
  if (*text == '[') {
    char* const end = strchr(text, ']');
    if (end == NULL) return place;
    *end = '\0';
    place.host = text + 1;
    colon = end[1] == ':' ? end + 1 : NULL;
  } else if (colon != NULL && strchr(text, ':') != colon) {
    return place; /* an IPv6 address without brackets */
  }
  if (colon == NULL) return place;
  place.port = (unsigned)strtoul(colon + 1, NULL, 10);
  *colon = '\0';
  return place;
}

/* A copy of the URL's host and port, for free(). Null if memory is exhausted. */
static char* authority_of(const char* url) {
  const char* begin = strstr(url, "://") + 3;
  const char* const end = begin + strcspn(begin, "/?#");
  for (const char* at = begin; at < end; at++) {
    if (*at == '@') begin = at + 1;
  }
  return strndup(begin, (size_t)(end - begin));
}

static unsigned usual_port(const char* url) {
  if (has_scheme(url, "https")) return 443;
  return has_scheme(url, "ftp") ? 21 : 80;
}

/* --- Exceptions --- */

/* Reads an address as 16 bytes. An IPv4 address is mapped to IPv6, so one comparison works for both
 * families.
 * @return the number of bits before the address in these bytes (96 for IPv4, 0 for IPv6); -1 if the
 * text is not an address */
static int read_address(const char* text, unsigned char bytes[16]) {
  static const unsigned char mapped[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};
  if (inet_pton(AF_INET6, text, bytes) == 1) return 0;
  memcpy(bytes, mapped, sizeof mapped);
  return inet_pton(AF_INET, text, bytes + sizeof mapped) == 1 ? 96 : -1;
}

/* Reads the length of a prefix, which is written as "8" or "255.0.0.0".
 * @param before the result of read_address() for the address that stands before the "/"
 * @return the number of bits to compare in the 16 bytes of read_address(): `before` plus the
 * length; -1 if `text` is not a valid length */
static long prefix_length(const char* text, int before) {
  struct in_addr mask;
  if (before == 96 && strchr(text, '.') != NULL) {
    if (inet_pton(AF_INET, text, &mask) != 1) return -1;
    return before + __builtin_popcount(mask.s_addr);
  }
  char* end = NULL;
  const long length = strtol(text, &end, 10);
  if (end == text || *end != '\0' || length < 0 || length > 128 - before) return -1;
  return before + length;
}

static int is_in_range(const char* host, char* range) {
  unsigned char address[16], network[16];
  char* const slash = strchr(range, '/');
  if (slash != NULL) *slash = '\0';
  const int before = read_address(range, network);
  if (before < 0 || read_address(host, address) != before) return 0;
  const long bits = slash == NULL ? 128 : prefix_length(slash + 1, before);
  if (bits < 0) return 0;
  if (memcmp(address, network, (size_t)bits / 8) != 0) return 0;
  const unsigned rest = (unsigned)bits % 8;
  return rest == 0 || ((address[bits / 8] ^ network[bits / 8]) >> (8 - rest)) == 0;
}

static int ends_with(const char* host, const char* end) {
  const size_t length = strlen(host), of_end = strlen(end);
  return length >= of_end && px_equal_ignoring_case(host + length - of_end, end, SIZE_MAX);
}

/* Whether an element of no_proxy matches `asked`.
 * @param pattern the element; the function changes this text */
static int excepts(char* pattern, const Place* asked) {
  if (strcmp(pattern, "*") == 0) return 1;
  if (strcmp(pattern, "<local>") == 0) return strpbrk(asked->host, ".:") == NULL;
  if (strchr(pattern, '/') != NULL) return is_in_range(asked->host, pattern);
  const Place place = place_of(pattern);
  if (place.port != 0 && place.port != asked->port) return 0;
  if (px_equal_ignoring_case(asked->host, place.host, SIZE_MAX)) return 1;
  if (*place.host == '*') return ends_with(asked->host, place.host + 1);
  if (*place.host == '.') return ends_with(asked->host, place.host);
  return is_in_range(asked->host, place.host);
}

static int is_excepted(const char* url) {
  const char* const value = variable("no_proxy", "NO_PROXY");
  if (value == NULL || *value == '\0') return 0;
  char* const patterns = strdup(value);
  char* const authority = authority_of(url);
  int found = 0;
  if (patterns != NULL && authority != NULL) {
    Place asked = place_of(authority);
    if (asked.port == 0) asked.port = usual_port(url);
    char* rest = NULL;
    for (char* pattern = strtok_r(patterns, ", \t", &rest); pattern != NULL && !found;
         pattern = strtok_r(NULL, ", \t", &rest)) {
      found = excepts(pattern, &asked);
    }
  }
  free(patterns);
  free(authority);
  return found;
}

char* px_environment_proxy(const char* url) {
  const char* const value = proxy_variable(url);
  char* proxy = NULL;
  if (value == NULL || *value == '\0' || is_excepted(url)) return NULL;
  const char* const scheme = strstr(value, "://") != NULL ? "" : "http://";
  return asprintf(&proxy, "%s%s", scheme, value) < 0 ? NULL : proxy;
}
