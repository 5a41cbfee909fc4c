/* Fetches a URL as programs that use GLib do, and prints the page. usage: soup_get URL
 *
 * GLib chooses the proxy; this program has no setting for it.
 */
#include <libsoup/soup.h>

#define LIMIT 60 /* seconds without any event */

int main(int argc, char** argv) {
  if (argc != 2) {
    g_printerr("usage: %s URL\n", argv[0]);
    return 2;
  }
  g_autoptr(SoupMessage) message = soup_message_new(SOUP_METHOD_GET, argv[1]);
  if (message == NULL) {
    g_printerr("%s is no URL\n", argv[1]);
    return 2;
  }
  g_autoptr(SoupSession) session = soup_session_new_with_options("timeout", LIMIT, NULL);
  g_autoptr(GError) error = NULL;
  g_autoptr(GBytes) page = soup_session_send_and_read(session, message, NULL, &error);
  if (page == NULL) {
    g_printerr("%s\n", error->message);
    return 1;
  }
  if (!SOUP_STATUS_IS_SUCCESSFUL(soup_message_get_status(message))) {
    g_printerr("%s\n", soup_message_get_reason_phrase(message));
    return 1;
  }
  g_print("%.*s", (int)g_bytes_get_size(page), (const char*)g_bytes_get_data(page, NULL));
  return 0;
}
