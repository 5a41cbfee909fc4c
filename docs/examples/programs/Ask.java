// Fetches URLs, each by the proxies that the proxy manager names for it, in their order.
import java.io.IOException;
import java.net.*;
import java.util.*;

public class Ask extends ProxySelector {
    // Java calls it for each connection, also after a redirect.
    @Override
    public List<Proxy> select(URI uri) {
        List<Proxy> proxies = new ArrayList<>();
        try {
            Process process = new ProcessBuilder("proxymanagerctl", "get", "--format", "raw", uri.toString())
                .redirectError(ProcessBuilder.Redirect.DISCARD).start();
            String answer = new String(process.getInputStream().readAllBytes()).trim();
            if (process.waitFor() == 0) {
                for (String entry : answer.split("; *")) add(proxies, entry);
            }
        } catch (IOException | InterruptedException failure) {
            // No proxymanagerctl, or the thread is to end: as without a daemon.
        }
        return proxies.isEmpty() ? List.of(Proxy.NO_PROXY) : proxies;
    }

    private static void add(List<Proxy> proxies, String entry) {
        // "PROXY host:port", "SOCKS host:port", "DIRECT", or the URL of mode manual.
        boolean socks = entry.startsWith("SOCKS") || entry.startsWith("socks");
        String host = entry.replaceFirst("^(PROXY |SOCKS |[a-z0-9]+://)", "").replaceFirst("/$", "");
        int colon = host.lastIndexOf(':');
        if (entry.equals("DIRECT")) proxies.add(Proxy.NO_PROXY);
        if (colon < 0) return;
        proxies.add(new Proxy(socks ? Proxy.Type.SOCKS : Proxy.Type.HTTP,
            new InetSocketAddress(host.substring(0, colon), Integer.parseInt(host.substring(colon + 1)))));
    }

    // Java has gone on to the next one by itself.
    @Override
    public void connectFailed(URI uri, SocketAddress address, IOException failure) {}

    public static void main(String[] urls) throws IOException {
        ProxySelector.setDefault(new Ask());
        for (String url : urls) new URL(url).openStream().transferTo(System.out);
        System.out.flush();
    }
}
