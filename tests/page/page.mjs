// The monitor's page in a real browser, through an outage: the backlog grows and drains.
//
//   node page.mjs AGENT MODULES PLAYWRIGHT CHROMIUM [SCREENSHOTS]
//
// PLAYWRIGHT is the directory of the package playwright-core. With SCREENSHOTS pictures of the outage
// are left in that directory.
import assert from "node:assert/strict";
import { spawn } from "node:child_process";
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { createRequire } from "node:module";
import net from "node:net";
import { tmpdir } from "node:os";
import path from "node:path";

const [agentPath, modules, playwright, chromiumPath, screenshots] = process.argv.slice(2);
const { chromium } = createRequire(import.meta.url)(playwright);

const LIMIT = 180e3;
const directory = mkdtempSync(path.join(tmpdir(), "orlo-page-"));

async function until(condition, what) {
  const end = Date.now() + LIMIT;
  for (;;) {
    const value = await condition();
    if (value) return value;
    if (Date.now() > end) throw new Error(`${what}: not within ${LIMIT / 1000} s`);
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
}

// A receiver that can go away and come back on the same port. The port is below those that the
// system gives to others.
class Receiver {
  lines = 0;
  connections = new Set();
  async open() {
    for (let attempt = 0; ; ++attempt) {
      this.port ??= 20000 + Math.floor(Math.random() * 10000);
      this.server = net.createServer((socket) => {
        this.connections.add(socket);
        socket.on("data", (data) => { for (const byte of data) this.lines += byte === 10; });
        socket.on("error", () => {});
        socket.on("close", () => this.connections.delete(socket));
      });
      try {
        await new Promise((resolve, reject) => {
          this.server.once("error", reject);
          this.server.listen(this.port, "127.0.0.1", resolve);
        });
        return;
      } catch (error) {
        if (attempt === 20) throw error;
        if (!this.lines) this.port = undefined;
        await new Promise((resolve) => setTimeout(resolve, 200));
      }
    }
  }
  close() {
    this.server.close();
    // The agent sees that and sends no more; what is on its way is still taken.
    for (const socket of this.connections) socket.end();
  }
}

class Agent {
  text = "";
  constructor(receiverPort) {
    // The second stream has a schedule to show, and nothing to send.
    const config = path.join(directory, "agent.yaml");
    writeFileSync(config, `data_directory: ./data
disk: { quota: 1GiB, keep_free: 0 }
shutdown: { drain_timeout: 1s }
monitor: { listen: "127.0.0.1:0", refused_after: 1s }
streams:
  - name: Firewall
    source: { type: syslog, listen: "tcp://127.0.0.1:0" }
    stages: [ { module: StoreAndForwardStage, settings: { DataChunkPeriod: 5 } } ]
    destination: { type: syslog, target: "tcp://127.0.0.1:${receiverPort}" }
  - name: Branch office
    source: { type: file, path: branch.log }
    stages:
      - module: StoreAndForwardStage
        settings: { Schedule.Enable: true, Schedule.Interval: [ "0800-1200;3E;Europe/Berlin", "1330-1800;3E;Europe/Berlin", "1000-1400;40;Europe/Berlin" ] }
    destination: { type: file, path: events.log }
`);
    this.process = spawn(agentPath, ["run", "--config", config, "--modules", modules],
      { cwd: directory, stdio: ["ignore", "ignore", "pipe"] });
    this.process.stderr.on("data", (data) => { this.text += data; });
  }
  async find(pattern) {
    return until(() => {
      const found = this.text.match(pattern);
      if (!found && this.process.exitCode !== null) throw new Error("the agent ended:\n" + this.text);
      return found && Number(found[1]);
    }, String(pattern));
  }
}

const receiver = new Receiver();
let agent, browser, feeder;
let sent = 0;
try {
  await receiver.open();
  agent = new Agent(receiver.port);
  const port = await agent.find(/Listening on tcp:\/\/127\.0\.0\.1:(\d+)\./);
  const monitor = await agent.find(/Listening on http:\/\/127\.0\.0\.1:(\d+)\//);
  const sender = net.connect(port, "127.0.0.1");
  feeder = setInterval(() => {
    for (let i = 0; i < 20; ++i) sender.write(`<134>1 event ${sent++} of a firewall that is busy\n`);
  }, 100);

  browser = await chromium.launch({ executablePath: chromiumPath,
    args: ["--no-sandbox", "--disable-dev-shm-usage"] });
  const page = await browser.newPage({ viewport: { width: 1100, height: 900 }, colorScheme: "light" });
  const complaints = [], foreign = [];
  page.on("pageerror", (error) => complaints.push(error.message));
  page.on("console", (message) => message.type() === "error" && complaints.push(message.text()));
  page.on("request", (request) => {
    if (!request.url().startsWith(`http://127.0.0.1:${monitor}/`) && !request.url().startsWith("data:"))
      foreign.push(request.url());
  });
  await page.goto(`http://127.0.0.1:${monitor}/`);

  const card = page.locator("section.card").filter({ has: page.locator("h2", { hasText: "Firewall" }) });
  const figure = async (name) => (await card.locator(`[data-figure=${name}]`).getAttribute("data-value"))
    ?? "";
  const number = async (name) => Number(await figure(name));
  // How high an area of the chart of the backlog reaches, in pixels.
  const height = async (name) => (await card.locator(`path.area.${name}`).boundingBox())?.height ?? 0;

  await until(async () => (await number("near")) > 0, "events go straight through");
  await until(async () => (await page.locator("#health").textContent()) === "healthy", "healthy");
  await until(async () => (await number("cached")) === 0, "nothing is on disk");
  await page.locator("label", { hasText: /^5 min$/ }).click();
  // The schedule's week, with now on it.
  assert.equal(await page.locator(".week .now").count(), 1);
  assert.ok(await page.locator(".week .open").count() >= 11);

  receiver.close();
  await until(async () => (await number("cached")) > 0, "the backlog appears");
  const before = await number("cached");
  await until(async () => (await number("cached")) > before, "the backlog grows");
  await until(async () => (await height("cached")) > 20, "the area of the backlog grows");
  await until(async () => (await page.locator("#health").textContent()) === "degraded", "degraded");
  assert.match(await card.locator(".problems").textContent(), /the destination has refused events/);
  assert.match(await page.locator("#messages").textContent(), /can't be reached/);
  await until(async () => /\d+ (s|min)/.test(await figure("oldest")), "the age of the oldest");
  await checkKeys(page, card);
  // A picture should have something to show.
  if (screenshots) await until(async () => (await number("cached")) > 5000, "a larger backlog");
  await lookAround(page);

  clearInterval(feeder);
  await receiver.open();
  await until(async () => receiver.lines === sent, "everything arrives");
  await until(async () => (await number("cached")) === 0, "the backlog drains");
  await until(async () => (await page.locator("#health").textContent()) === "healthy", "healthy");
  await until(async () => (await card.locator("[data-figure=out] small").textContent())
    === (await card.locator("[data-figure=in] small").textContent()), "as much out as in");
  assert.equal(await number("lost"), 0);
  assert.ok(await number("far") > 0);
  assert.equal(await number("far"), await number("spilled"));

  await checkReload(page, card);
  await checkOldFigures(page);
  await checkClockThatWasPutBack(page);
  await checkFallback(page, card);
  await checkErrors(page);
  await checkSilence(page);

  agent.process.kill();
  await until(async () => (await page.locator("#health").textContent()) === "no answer", "no answer");
  assert.deepEqual(foreign, []);
  // That the agent does not answer any more, or answers with an error, is said by the browser, too.
  assert.deepEqual(complaints.filter((one) => !/ERR_CONNECTION|status of (401|500)/.test(one)), []);
  console.log(`page: ${sent} events through an outage, all seen`);
} finally {
  clearInterval(feeder);
  await browser?.close();
  agent?.process.kill("SIGKILL");
  receiver.close();
  rmSync(directory, { recursive: true, force: true });
}
process.exit(0);

// Everything can be reached without a mouse, and the arrows look at single moments.
async function checkKeys(page, card) {
  const chart = card.locator("svg.chart").last();
  await page.locator("body").click({ position: { x: 1, y: 1 } });
  await page.keyboard.press("Tab");
  assert.equal(await page.evaluate(() => document.activeElement.className), "skip");
  let found = false;
  for (let i = 0; i < 20 && !found; ++i) {
    await page.keyboard.press("Tab");
    found = await chart.evaluate((one) => one === document.activeElement);
  }
  assert.ok(found, "Tab reaches the chart");
  assert.equal(await chart.locator(".cursor").count(), 0);
  await page.keyboard.press("ArrowLeft");
  assert.equal(await chart.locator(".cursor").count(), 1);
  const x = async () => Number(await chart.locator(".cursor").getAttribute("x1"));
  const first = await x();
  await page.keyboard.press("ArrowLeft");
  assert.ok(await x() < first, "one step back");
  assert.match(await chart.getAttribute("aria-label"), /on disk [\d,]+/);
  await page.keyboard.press("Escape");
  assert.equal(await chart.locator(".cursor").count(), 0);
}

// Lets `change` change what /status answers from now on; the function that is returned ends that.
async function changeStatus(page, change) {
  const seen = { answers: 0 };
  await page.route("**/status", async (route) => {
    const answer = await route.fetch();
    const status = await answer.json();
    await change(status);
    await route.fulfill({ response: answer, json: status });
    ++seen.answers;
  });
  await until(() => seen.answers >= 3, "three changed answers");
  return () => page.unroute("**/status");
}

// A stream that is gone for a moment, because it is made again, comes back with its hour.
async function checkReload(page, card) {
  const rows = () => card.locator("tbody tr").count();
  // In which no point grows too old.
  await page.locator("label", { hasText: /^1 hour$/ }).click();
  await card.locator("summary").click();
  await until(async () => (await rows()) > 3, "some points");
  const before = await rows();
  const end = await changeStatus(page, (status) => {
    status.streams = status.streams.filter((one) => one.name !== "Firewall");
  });
  assert.equal(await card.count(), 0);
  await end();
  await until(async () => (await card.count()) === 1, "the stream is back");
  await card.locator("summary").click();
  await until(async () => (await rows()) > 0, "its points");
  await until(async () => (await rows()) >= before, `all of ${before} points`);
}

// An agent that can't look at itself says so, and its last figures are not taken for those of now.
async function checkOldFigures(page) {
  let last, gap;
  const end = await changeStatus(page, async (status) => {
    // The page asks again when it has shown the answer.
    if (last !== undefined) gap ??= await page.evaluate(() => clockGap);
    last ??= status.sampled;
    Object.assign(status, { sampled: last, healthy: false, problems: ["has not looked at itself"] });
  });
  assert.equal(await page.locator("#health").textContent(), "degraded");
  assert.match(await page.locator("#problems").textContent(), /has not looked at itself/);
  assert.equal(await page.evaluate(() => clockGap), gap, "now is now");
  await end();
  await until(async () => (await page.locator("#health").textContent()) === "healthy", "healthy");
}

// What was seen before the clock was put back, and seems to lie in the future now, keeps nothing out.
async function checkClockThatWasPutBack(page) {
  const last = () => page.evaluate(() => streams.get("Firewall").points.at(-1).time);
  const before = await last();
  const future = before + 500e3;
  await page.route("**/history*", async (route) => {
    const answer = await route.fetch();
    const history = await answer.json();
    for (const column of Object.values(history.Firewall ?? {})) column.push(column.at(-1) ?? 0);
    history.Firewall?.time.splice(-1, 1, before + 600e3);
    await route.fulfill({ response: answer, json: history });
  });
  await until(async () => await last() > future, "a point of the future");
  await page.unroute("**/history*");
  await until(async () => before < await last() && await last() < future, "the points go on");
}

// The line of the ends names a fallback, and whether it is used.
async function checkFallback(page, card) {
  const ends = () => card.locator(".ends").textContent();
  assert.doesNotMatch(await ends(), /fallback/);
  let since = null;
  const end = await changeStatus(page, (status) => {
    const stream = status.streams.find((one) => one.name === "Firewall");
    Object.assign(stream, { fallback: { type: "file", name: "aside.log" }, fallback_since: since });
  });
  assert.match(await ends(), /→ syslog tcp:.*; fallback file aside\.log, not used$/);
  since = 1.7e9;
  await until(async () => /fallback file aside\.log, since \d\d:\d\d:\d\d$/.test(await ends()), "its time");
  await end();
  await until(async () => !/fallback/.test(await ends()), "no fallback");
}

// An agent that hangs has not answered, however long one waits.
async function checkSilence(page) {
  await page.route("**/status", () => {});
  await until(async () => (await page.locator("#health").textContent()) === "no answer", "no answer");
  await page.unroute("**/status");
  await until(async () => (await page.locator("#health").textContent()) === "healthy", "an answer");
}

// Without the token the page says what to do; another error is an answer. It goes on when it can.
async function checkErrors(page) {
  for (const [status, health, problem] of [[401, "no entry", /wants its token/],
    [500, "error 500", /^The agent answers with error 500\. What is shown/]]) {
    await page.route("**/status", (route) => route.fulfill({ status, body: "no" }));
    await until(async () => (await page.locator("#health").textContent()) === health, health);
    assert.match(await page.locator("#problems").textContent(), problem);
    await page.unroute("**/status");
    await until(async () => (await page.locator("#health").textContent()) === "healthy", "let in");
  }
}

// Both themes, and the width of a phone.
async function lookAround(page) {
  const shoot = async (name) => {
    if (!screenshots) return;
    // So that the charts are drawn for the size.
    await page.evaluate(() => document.activeElement.blur());
    await page.waitForTimeout(2500);
    await page.screenshot({ path: path.join(screenshots, name), fullPage: true });
  };
  const color = () => page.evaluate(() => getComputedStyle(document.body).backgroundColor);
  const light = await color();
  await shoot("monitor-light.png");
  await page.emulateMedia({ colorScheme: "dark" });
  assert.notEqual(await color(), light);
  await shoot("monitor-dark.png");
  await page.setViewportSize({ width: 390, height: 844 });
  await until(() => page.evaluate(() => document.documentElement.scrollWidth <= innerWidth),
    "nothing is wider than a phone");
  await shoot("monitor-phone.png");
  await page.emulateMedia({ colorScheme: "light" });
  await page.setViewportSize({ width: 1100, height: 900 });
}
