// Fetches URLs, each through the daemon's proxy for this URL.
import { execFile } from "node:child_process";
import http from "node:http";
import https from "node:https";
import tls from "node:tls";
import { promisify } from "node:util";

const run = promisify(execFile);

// The proxy's URL, or null for a direct connection. The format "curl" has one URL: the first usable entry.
async function proxyOf(url) {
  try {
    const { stdout } = await run("proxymanagerctl", ["get", "--format", "curl", url]);
    return stdout.trim() ? new URL(stdout.trim()) : null;
  } catch {
    return null; // no daemon, or no answer
  }
}

// The options of a request to the proxy.
function by({ protocol, hostname, port, username, password }, headers) {
  if (protocol !== "http:") throw new Error(`${hostname}: Node has no ${protocol}`);
  const pair = `${decodeURIComponent(username)}:${decodeURIComponent(password)}`;
  if (username) headers["Proxy-Authorization"] = `Basic ${Buffer.from(pair).toString("base64")}`;
  return { host: hostname.replace(/[[\]]/g, ""), port: port || 80, headers };
}

// Calls back with the response.
async function get(url, done, fail) {
  const proxy = await proxyOf(url), { host, hostname, port } = new URL(url);
  if (!proxy) return (url.startsWith("https:") ? https : http).get(url, done).on("error", fail);
  const options = by(proxy, { host });
  if (!url.startsWith("https:")) return http.get({ ...options, path: url }, done).on("error", fail);
  http.request({ ...options, method: "CONNECT", path: `${hostname}:${port || 443}` })
    .on("connect", (answer, socket) => {
      if (answer.statusCode !== 200) return fail(new Error(`the proxy answers ${answer.statusCode}`));
      // With an agent, Node would ignore this function and connect directly.
      const createConnection = () => tls.connect({ socket, servername: hostname });
      https.get(url, { createConnection }, done).on("error", fail);
    }).on("error", fail).end();
}

function fail(error) {
  console.error(error.message);
  process.exitCode = 1;
}

for (const url of process.argv.slice(2)) {
  await get(url, (response) => response.pipe(process.stdout), fail).catch(fail);
}
