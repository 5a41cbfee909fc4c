// Fetches URLs with undici, which fetch of Node is made of, through the relay.
const { fetch, ProxyAgent, setGlobalDispatcher } = require("undici");

setGlobalDispatcher(new ProxyAgent("http://127.0.0.1:3128"));

(async () => {
  for (const url of process.argv.slice(2)) process.stdout.write(await (await fetch(url)).text());
})();
