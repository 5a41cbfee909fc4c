// Fetches URLs, each through the daemon's proxies for this URL, in their order.
import java.io.IOException;
import java.net.*;
import java.util.*;
import java.util.regex.*;

public class Ask extends ProxySelector {
    // "PROXY host:port", "SOCKS host:port", or the proxy of mode manual: a URL, perhaps with a user and a
    // password, or "host:port".
    private static final Pattern ENTRY = Pattern.compile(
        "(?:(PROXY|SOCKS) |(http|socks[45ah]*)://)?(?:.*@)?(\\[.*\\]|[^:/\\[\\]]+)(?::(\\d{1,5}))?/?");

    // Java calls this function for each connection, also after a redirect.
    @Override
    public List<Proxy> select(URI uri) {
        String answer = "";
        try {
            Process process = new ProcessBuilder("proxymanagerctl", "get", "--format", "raw", uri.toString())
                .redirectError(ProcessBuilder.Redirect.DISCARD).start();
            String output = new String(process.getInputStream().readAllBytes()).trim();
            if (process.waitFor() == 0) answer = output;
        } catch (IOException | InterruptedException failure) {
            // No proxymanagerctl, or the thread must end: treated as if there were no daemon.
        }
        if (answer.isEmpty()) return List.of(Proxy.NO_PROXY);
        List<Proxy> proxies = new ArrayList<>();
        for (String entry : answer.split("; *")) add(proxies, entry);
        // Java reports this exception as an IOException, and does not connect.
        if (proxies.isEmpty()) throw new IllegalArgumentException("Java can use no proxy of the answer");
        return proxies;
    }

    private static void add(List<Proxy> proxies, String entry) {
        Matcher parts = ENTRY.matcher(entry);
        if (entry.equals("DIRECT")) {
            proxies.add(Proxy.NO_PROXY);
        } else if (parts.matches()) {
            String kind = parts.group(1) != null ? parts.group(1) : String.valueOf(parts.group(2));
            boolean socks = kind.toLowerCase().startsWith("socks");
            int port = parts.group(4) != null ? Integer.parseInt(parts.group(4)) : socks ? 1080 : 80;
            proxies.add(new Proxy(socks ? Proxy.Type.SOCKS : Proxy.Type.HTTP,
                new InetSocketAddress(parts.group(3), port)));
        }
    }

    // Nothing to do: Java itself continues with the next proxy.
    @Override
    public void connectFailed(URI uri, SocketAddress address, IOException failure) {}

    public static void main(String[] urls) throws IOException {
        ProxySelector.setDefault(new Ask());
        for (String url : urls) new URL(url).openStream().transferTo(System.out);
        System.out.flush();
    }
}
