"""Tests unchanged programs of Debian that are linked with libproxy. The library of the build replaces
libproxy."""

import os
import re

import pytest
from support.bus import wait_until
from support.real_proxies import (DIRECT, HTTP, HTTP_PROXY, PAGE, SITE, SOCKS, SOCKS_PROXY, by_network,
                                  by_script)

pytestmark = pytest.mark.usefixtures("own_network")

TREE = os.path.abspath(os.path.join(os.path.dirname(__file__), "../.."))
OURS = {"LD_LIBRARY_PATH": "/opt/build/lib"}
SECURE_PAGE = f"https://{SITE}/way"
ENVIRONMENT = "http://environment:1"
ADDRESSES = {"127.0.0.1": DIRECT, "127.0.0.8": HTTP, "127.0.0.9": SOCKS}

QT = """
#include <QtCore/QCoreApplication>
#include <QtNetwork/QNetworkAccessManager>
#include <QtNetwork/QNetworkProxyFactory>
#include <QtNetwork/QNetworkReply>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

// The names of the threads, each after a blank.
static void printThreads() {
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    std::string name;
    std::getline(std::ifstream(thread.path() / "comm"), name);
    std::printf(" %s", name.c_str());
  }
}

int main(int argc, char** argv) {
  QCoreApplication application(argc, argv);
  QNetworkProxyFactory::setUseSystemConfiguration(true);
  QNetworkAccessManager manager;
  QNetworkReply* reply = manager.get(QNetworkRequest(QUrl(argv[1])));
  QObject::connect(reply, &QNetworkReply::finished, [&] {
    const QByteArray page = reply->error() ? reply->errorString().toUtf8() : reply->readAll();
    std::fwrite(page.constData(), 1, page.size(), stdout);
    if (argc > 2) printThreads();
    application.exit(reply->error());
  });
  return application.exec();
}
"""
# Many threads at once ask GLib's resolver, which uses libproxy, or fetch a page with its answer.
RESOLVER = """
#include <gio/gio.h>
#include <string.h>

// The page without its head.
static gpointer fetch(gpointer url) {
  g_autoptr(GSocketClient) client = g_socket_client_new();
  g_autoptr(GError) error = NULL;
  g_socket_client_set_tls(client, TRUE);
  g_autoptr(GSocketConnection) connection = g_socket_client_connect_to_uri(client, url, 443, NULL, &error);
  if (connection == NULL) return g_strdup(error->message);
  GIOStream* stream = G_IO_STREAM(connection);
  const char* request = "GET /way HTTP/1.0\\r\\n\\r\\n";
  g_output_stream_write_all(g_io_stream_get_output_stream(stream), request, strlen(request), NULL, NULL, NULL);
  char answer[4096] = "";
  gsize length = 0;
  g_input_stream_read_all(g_io_stream_get_input_stream(stream), answer, sizeof answer - 1, &length, NULL, NULL);
  const char* body = strstr(answer, "\\r\\n\\r\\n");
  return g_strdup(body == NULL ? "no page" : body + 4);
}

static gpointer ask(gpointer url) {
  for (int i = 0; i < 50; i++) {
    gchar* asked = g_strdup_printf("%s%d", (char*)url, i % 5);
    g_auto(GStrv) proxies = g_proxy_resolver_lookup(g_proxy_resolver_get_default(), asked, NULL, NULL);
    if (proxies == NULL || strcmp(proxies[0], "http://p:1") != 0) return "wrong";
    g_free(asked);
  }
  return "right";
}

int main(int argc, char** argv) {
  GThread* threads[16];
  g_print("%s", G_OBJECT_TYPE_NAME(g_proxy_resolver_get_default()));
  for (int i = 0; i < 16; i++) threads[i] = g_thread_new(NULL, argc > 2 ? fetch : ask, argv[1]);
  for (int i = 0; i < 16; i++) g_print("%s%s", argc > 2 ? "\\n" : " ", (char*)g_thread_join(threads[i]));
  return 0;
}
"""


def compile_(programs, name, text, *options):
    programs.write(f"/opt/{name}", text)
    programs.ask("sh", "-c", f"g++ -x {'c' if name.endswith('.c') else 'c++'} /opt/{name} -x none "
                 f"-o /opt/program {' '.join(options)}")
    return "/opt/program"


def in_each_mode(client, port80, syslog, daemon):
    """Sets one mode after the other. In each mode, yields the first proxy of the answer, and the
    way that requests must take."""
    client.update("manual", f"http://{HTTP_PROXY}")
    yield f"http://{HTTP_PROXY}", HTTP
    by_script(client, port80, f"SOCKS {SOCKS_PROXY}; DIRECT")
    yield f"socks://{SOCKS_PROXY}", SOCKS
    by_network(client, port80, syslog, f"PROXY {HTTP_PROXY}")
    yield f"http://{HTTP_PROXY}", HTTP
    by_script(client, port80, "DIRECT")
    yield "direct://", DIRECT
    client.update("off")
    yield "direct://", DIRECT
    daemon.kill()
    yield "direct://", DIRECT


def test_a_program_of_qt_6_fetches_by_the_way_of_each_mode(programs, client, port80, syslog, daemon):
    folder = "/usr/include/$(uname -m)-linux-gnu/qt6"
    program = compile_(programs, "fetch.cpp", QT, "-std=c++17", "-fPIC", f"-I{folder}", f"-I{folder}/QtCore",
                       f"-I{folder}/QtNetwork", "-lQt6Network", "-lQt6Core")
    assert "libproxy.so.1 => /opt/build/lib" in programs.ask(
        "sh", "-c", "ldd $(ldd /opt/program | awk '/Qt6Network/ { print $3 }')", **OURS)
    for _, way in in_each_mode(client, port80, syslog, daemon):
        assert programs.ask(program, PAGE, **OURS) == way
    assert programs.ask(program, PAGE, **OURS, http_proxy=f"http://{HTTP_PROXY}") == HTTP
    # The main thread draws the windows, so it must not call the library.
    assert "QLibProxyWrappe" in programs.ask(program, PAGE, "threads", **OURS)


def test_openconnect_detects_the_proxy_of_each_mode(programs, client, port80, syslog, daemon):
    def seen():
        with open("/run/nginx.access") as log:
            return re.findall(r"^(\S+) .*AnyConnect", log.read(), re.MULTILINE)

    for _, way in in_each_mode(client, port80, syslog, daemon):
        before = len(seen())
        # The server is no VPN server, so openconnect fails. But its request reaches the server.
        programs.status("openconnect", "--libproxy", "--non-inter", "--authenticate", "--cafile=/run/site.pem",
                        f"https://{SITE}/", **OURS)
        wait_until(lambda: len(seen()) > before, "the server is asked")
        assert {ADDRESSES[address] for address in seen()[before:]} == {way}


def test_python3_libproxy_and_the_tool_answer_in_each_mode(programs, client, port80, syslog, daemon):
    for proxy, _ in in_each_mode(client, port80, syslog, daemon):
        from_python = programs.ask("python3", "-c", "import libproxy, sys\n"
                                   "print(*libproxy.ProxyFactory().getProxies(sys.argv[1]))", PAGE, **OURS)
        assert from_python.split()[0] == proxy
        assert programs.ask("proxy", PAGE, **OURS) == from_python
    assert programs.ask("proxy", PAGE, **OURS, http_proxy=ENVIRONMENT).strip() == ENVIRONMENT


def test_many_threads_of_glibs_resolver_over_libproxy_get_an_answer(programs, client):
    client.update("manual", "http://p:1")
    program = compile_(programs, "resolver.c", RESOLVER, "$(pkg-config --cflags --libs gio-2.0)")
    assert programs.ask(program, "http://www.example.test/", **OURS, GIO_USE_PROXY_RESOLVER="libproxy") == (
        "GLibproxyResolver" + 16 * " right")


def test_many_threads_of_glibs_resolver_over_libproxy_fetch_by_the_way_of_each_mode(programs, client, port80, syslog,
                                                                                      daemon):
    program = compile_(programs, "resolver.c", RESOLVER, "$(pkg-config --cflags --libs gio-2.0)")
    for _, way in in_each_mode(client, port80, syslog, daemon):
        assert programs.ask(program, SECURE_PAGE, "fetch", **OURS, GIO_USE_PROXY_RESOLVER="libproxy") == (
            "GLibproxyResolver" + 16 * f"\n{way}")
