// Fetches URLs through the relay with undici, the package behind Node's own fetch.
const { fetch, ProxyAgent, setGlobalDispatcher } = require("undici");

setGlobalDispatcher(new ProxyAgent("http://127.0.0.1:3128"));

(async () => {
  for (const url of process.argv.slice(2)) process.stdout.write(await (await fetch(url)).text());
})();
