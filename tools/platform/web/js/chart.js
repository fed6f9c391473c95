// The history chart of one point, drawn by uPlot. History rows carry the
// gateway's own time stamps, whose offset from this browser's clock is not
// known (boxes often keep local time), so a range is fetched with a margin
// and then cut to the span before the newest row.
import { gatewayPath, getJson } from "./api.js";

const CLOCK_MARGIN_S = 14 * 3600;  // the widest time-zone offset
const UPLOT = "uPlot.iife.min.js";
const REFRESH_MS = 15000;
const HEIGHT = 260;

// Only numbers are drawn; a text the gateway uploaded that is no number is a gap.
export function numericSeries(rows, range) {
  const times = [];
  const values = [];
  let numbers = 0;
  const newest = rows.length ? rows[rows.length - 1].time : 0;
  for (const r of rows) {
    if (range && r.time < newest - range) continue;
    const text = typeof r.value === "string" ? r.value.trim() : "";
    const n = text === "" ? NaN : Number(text);
    times.push(r.time);
    values.push(Number.isFinite(n) ? n : null);
    if (Number.isFinite(n)) ++numbers;
  }
  return { times, values, numbers };
}

// uPlot is fetched with the first chart, not with the page: a page that only
// watches values never parses it.
let library = null;
function uPlotReady() {
  library ??= new Promise((resolve, reject) => {
    const script = document.createElement("script");
    script.src = UPLOT;
    script.onload = () => resolve(window.uPlot);
    script.onerror = () => {
      library = null;
      reject(new Error("the chart library " + UPLOT + " is not installed beside the page"));
    };
    document.head.append(script);
  });
  return library;
}

export class HistoryChart {
  constructor(panel) {
    this.panel = panel;
    this.title = panel.querySelector("#chart-title");
    this.box = panel.querySelector("#chart");
    this.note = panel.querySelector("#chart-note");
    this.buttons = [...panel.querySelectorAll("[data-range]")];
    this.range = 3600;
    this.plot = null;
    this.timer = 0;
    this.asked = 0;  // answers to older requests are dropped
    for (const b of this.buttons)
      b.addEventListener("click", () => {
        this.range = Number(b.dataset.range);
        this.refresh();
      });
    // The panel's width changes with the window and with the values table
    // beside it (which fills after the chart may have been drawn).
    new ResizeObserver(() => {
      if (this.plot && Math.abs(this.plot.width - this.size().width) > 1) this.plot.setSize(this.size());
    }).observe(this.box);
  }

  size() {
    return { width: Math.max(240, this.box.clientWidth), height: HEIGHT };
  }

  show(sn, code, name) {
    const same = this.sn === sn && this.code === code;
    this.sn = sn;
    this.code = code;
    this.setName(name);
    this.panel.hidden = false;
    if (!same) this.drop();
    this.refresh();
    clearInterval(this.timer);
    this.timer = setInterval(() => this.refresh(), REFRESH_MS);
  }

  setName(name) {
    this.name = name || "";
    this.title.textContent = this.code + (name ? " " + name : "");
  }

  hide() {
    clearInterval(this.timer);
    this.panel.hidden = true;
    this.drop();
    this.sn = undefined;
  }

  drop() {
    if (this.plot) this.plot.destroy();
    this.plot = null;
  }

  async refresh() {
    for (const b of this.buttons) b.classList.toggle("on", Number(b.dataset.range) === this.range);
    const ask = ++this.asked;
    let query = "/history?code=" + this.code;
    if (this.range) query += "&from=" + Math.floor(Date.now() / 1000 - this.range - CLOCK_MARGIN_S);
    const res = await getJson(gatewayPath(this.sn, query));
    if (ask !== this.asked || this.panel.hidden) return;
    if (!res.ok) return this.empty(res.error);
    const s = numericSeries(res.data, this.range);
    if (!s.times.length) return this.empty("no history rows of this point in this range");
    if (!s.numbers) return this.empty("the values of this point are texts, not numbers");
    let uPlot;
    try {
      uPlot = await uPlotReady();
    } catch (e) {
      return this.empty(e.message);
    }
    if (ask !== this.asked || this.panel.hidden) return;
    this.note.textContent = s.times.length + " rows, gateway time";
    this.draw(uPlot, [s.times, s.values]);
  }

  empty(why) {
    this.drop();
    this.note.textContent = why;
  }

  draw(uPlot, data) {
    if (this.plot) return this.plot.setData(data);
    const label = this.name || "code " + this.code;
    this.plot = new uPlot(
      {
        ...this.size(),
        scales: { x: { time: true } },
        series: [{}, { label, stroke: "#1f6feb", width: 1.5, spanGaps: false, points: { show: false } }],
        axes: [{}, { size: 64 }],
      },
      data,
      this.box,
    );
  }
}
