// Fetches URLs, each by the proxy that the proxy manager names for it.
import { execFile } from "node:child_process";
import http from "node:http";
import https from "node:https";
import tls from "node:tls";
import { promisify } from "node:util";

const run = promisify(execFile);

// The proxy's URL, or null for a direct connection. "curl" is the form with one URL, the first that works.
async function proxyOf(url) {
  const { stdout } = await run("proxymanagerctl", ["get", "--format", "curl", url]);
  return stdout.trim() ? new URL(stdout.trim()) : null;
}

// Calls back with the response.
async function get(url, done) {
  const proxy = await proxyOf(url), { host, hostname, port } = new URL(url);
  if (proxy && proxy.protocol !== "http:") throw new Error(`${proxy}: Node has no ${proxy.protocol}`);
  const by = proxy && { host: proxy.hostname, port: proxy.port || 80 };
  const fail = (error) => { console.error(error.message); process.exitCode = 1; };
  if (!proxy) return (url.startsWith("https:") ? https : http).get(url, done).on("error", fail);
  if (!url.startsWith("https:")) return http.get({ ...by, path: url, headers: { host } }, done).on("error", fail);
  http.request({ ...by, method: "CONNECT", path: `${hostname}:${port || 443}`, headers: { host } })
    .on("connect", (answer, socket) => {
      if (answer.statusCode !== 200) return fail(new Error(`the proxy answers ${answer.statusCode}`));
      const createConnection = () => tls.connect({ socket, servername: hostname });
      https.get(url, { createConnection, agent: false }, done).on("error", fail);
    }).on("error", fail).end();
}

for (const url of process.argv.slice(2)) await get(url, (response) => response.pipe(process.stdout));
