// The console: the gateways on the left, the selected one's values, alarms
// and a point's history on the right. The address names the selection
// ("#/<serial>" or "#/<serial>/<code>"), so a link or a reload keeps it.
import { LiveStream, gatewayPath, getJson } from "./api.js";
import { AlarmsTable } from "./alarms.js";
import { HistoryChart } from "./chart.js";
import { dateTime } from "./format.js";
import { GatewayList } from "./gateways.js";
import { PointsTable } from "./points.js";
import { WriteForm } from "./writeform.js";

const GATEWAYS_EVERY_MS = 5000;
const ALARMS_EVERY_MS = 10000;
const ALARMS_AFTER_EVENT_MS = 800;
const NAMES_AFTER_NEW_MS = 1000;

const $ = (id) => document.getElementById(id);

let current = "";  // the selected gateway's serial
let filled = false;  // the first values table was built (for the load-time mark)
let alarmsTimer = 0;
let namesTimer = 0;

const gateways = new GatewayList($("gateways"), (sn) => go(sn));
const points = new PointsTable($("points"), $("points-count"), (code) => go(current, code), () => {
  clearTimeout(namesTimer);
  namesTimer = setTimeout(loadNames, NAMES_AFTER_NEW_MS);
});
const alarms = new AlarmsTable($("alarms"), $("alarms-count"));
const chart = new HistoryChart($("chart-panel"));
const writer = new WriteForm($("write-form"), () => [current, chart.code]);
const stream = new LiveStream({
  state(text, live) {
    $("stream").textContent = text;
    $("stream").classList.toggle("live", live);
  },
  resync: () => loadGateway(current),
  points(change) {
    if (change.sn !== current) return;
    points.apply(change.points);
    points.setStale(false);
    const newest = change.points.reduce((t, p) => Math.max(t, p.time), 0);
    gateways.update({ sn: change.sn, online: true, last_seen: newest });
  },
  alarm(event) {
    if (event.sn !== current) return;
    alarms.add(event);
    clearTimeout(alarmsTimer);
    alarmsTimer = setTimeout(loadAlarms, ALARMS_AFTER_EVENT_MS);
  },
  gateway: (g) => gateways.update(g),
});

function go(sn, code) {
  location.hash = "#/" + encodeURIComponent(sn) + (code === undefined ? "" : "/" + code);
}

function route() {
  const [, sn = "", code] = location.hash.split("/").map(decodeURIComponent);
  if (!sn) {
    if (gateways.size) history.replaceState(null, "", "#/" + encodeURIComponent(gateways.first()));
    else return showNothing();
    return route();
  }
  if (sn !== current) selectGateway(sn);
  if (code !== undefined && code !== "" && Number.isInteger(Number(code))) {
    const c = Number(code);
    chart.show(sn, c, points.rows.has(c) ? points.rows.get(c).name : "");
    writer.reset();
  } else {
    chart.hide();
  }
}

function showNothing() {
  $("gateway").hidden = true;
  $("nothing").hidden = false;
  $("nothing").textContent =
    "No gateway has been heard of yet. A gateway appears here with its first upload to the broker.";
}

function selectGateway(sn) {
  current = sn;
  gateways.select(sn);
  $("nothing").hidden = true;
  $("gateway").hidden = false;
  $("gw-title").textContent = sn;
  $("gw-info").textContent = "";
  points.load([]);
  alarms.clear();
  stream.open(sn);
  loadGateway(sn);
}

async function loadGateway(sn) {
  const [detail, list] = await Promise.all([getJson(gatewayPath(sn)), getJson(gatewayPath(sn, "/points"))]);
  if (sn !== current) return;
  if (!list.ok) {
    $("gw-info").textContent = list.error;
    return;
  }
  points.load(list.data);
  if (!chart.panel.hidden && chart.sn === sn && points.rows.has(chart.code))
    chart.setName(points.rows.get(chart.code).name);
  if (!filled) {
    // Marks for the load-time benchmark: the table built, then on screen.
    filled = true;
    performance.mark("lumbra-points-filled");
    requestAnimationFrame(() => setTimeout(() => performance.mark("lumbra-points-shown")));
    document.body.dataset.points = list.data.length;
  }
  points.setStale(!detail.ok || !detail.data.online);
  if (detail.ok) describe(detail.data);
  loadAlarms();
}

function describe(g) {
  const info = g.info || {};
  const parts = [g.online ? "online" : "offline", "version " + g.version];
  if (info.model) parts.push("model " + info.model);
  if (g.first_seen) parts.push("first seen " + dateTime(g.first_seen));
  for (const f of g.forwarding || [])
    parts.push("forwarding server " + f.config_id + (f.connected ? " connected" : " disconnected"));
  $("gw-info").textContent = parts.join(" · ");
}

async function loadNames() {
  const sn = current;
  const res = await getJson(gatewayPath(sn, "/points"));
  if (sn === current && res.ok) points.rename(res.data);
}

async function loadAlarms() {
  const sn = current;
  const res = await getJson(gatewayPath(sn, "/alarms"));
  if (sn === current && res.ok) alarms.load(res.data);
}

async function loadGateways() {
  const res = await getJson("/api/gateways");
  $("gateways-note").textContent = res.ok ? "" : res.error;
  if (!res.ok) return;
  gateways.load(res.data);
  if (current) points.setStale(!gateways.online(current));
}

// The first gateway heard of is shown without waiting for a click.
async function refreshGateways() {
  await loadGateways();
  if (!current) route();
}

let filterTimer = 0;
$("filter").addEventListener("input", (e) => {
  clearTimeout(filterTimer);
  filterTimer = setTimeout(() => points.filter(e.target.value), 150);
});
$("chart-close").addEventListener("click", () => go(current));
window.addEventListener("hashchange", route);
// A stream left open by a page kept in the back-forward cache would hold one
// of the browser's few connections to the platform.
window.addEventListener("pagehide", () => stream.close());
window.addEventListener("pageshow", (e) => e.persisted && current && stream.open(current));
setInterval(refreshGateways, GATEWAYS_EVERY_MS);
setInterval(() => gateways.tick(), 1000);
setInterval(() => current && loadAlarms(), ALARMS_EVERY_MS);

// A named gateway loads at once, beside the list, not after it.
if (location.hash.length > 2) {
  route();
  loadGateways();
} else {
  await loadGateways();
  route();
}
