// The values table of one gateway. Built once per gateway from the API; live
// changes then update their cells in place, at most once a frame, so that a
// gateway with 10,000 points uploading every second costs a few text writes,
// not a new table. A changed value is marked for a moment.
import { cell, clock } from "./format.js";

const MARK_MS = 1200;

export class PointsTable {
  // onAdded: points appeared that the table did not have (their names are
  // not in the stream).
  constructor(table, countEl, onPick, onAdded) {
    this.onAdded = onAdded;
    this.table = table;
    this.body = table.tBodies[0];
    this.countEl = countEl;
    this.rows = new Map();  // code -> {tr, name, value, time}
    this.codes = [];  // ascending, to place a point that appears later
    this.pending = new Map();  // code -> the latest change not yet shown
    this.marked = [];  // [cell, when marked], oldest first
    this.frame = 0;
    this.filterText = "";
    this.body.addEventListener("click", (e) => {
      const tr = e.target.closest("tr");
      if (tr) onPick(Number(tr.dataset.code), this.rows.get(Number(tr.dataset.code)).name);
    });
    setInterval(() => this.unmark(performance.now() - MARK_MS), 300);
  }

  load(points) {
    cancelAnimationFrame(this.frame);
    this.frame = 0;
    this.pending.clear();
    this.marked = [];
    this.rows.clear();
    const rows = document.createDocumentFragment();
    for (const p of points) rows.append(this.row(p));
    this.codes = [...this.rows.keys()].sort((a, b) => a - b);
    this.body.replaceChildren(rows);
    this.count();
    if (this.filterText) this.filter(this.filterText);
  }

  row(p) {
    const tr = document.createElement("tr");
    tr.dataset.code = p.code;
    cell(tr, p.code, "code");
    cell(tr, p.name || "", "name");
    const value = cell(tr, p.value, "value");
    const time = cell(tr, clock(p.time), "time");
    this.rows.set(p.code, { tr, name: p.name || "", value, time });
    return tr;
  }

  // Changes from the event stream; shown on the next frame, the latest of each point only.
  apply(points) {
    for (const p of points) this.pending.set(p.code, p);
    if (!this.frame) this.frame = requestAnimationFrame(() => this.flush());
  }

  flush() {
    this.frame = 0;
    const now = performance.now();
    let added = 0;
    for (const p of this.pending.values()) {
      const r = this.rows.get(p.code);
      if (!r) {
        this.insert(p);
        ++added;
        continue;
      }
      if (r.value.textContent !== p.value) {
        r.value.textContent = p.value;
        if (!r.value.classList.contains("changed")) {
          r.value.classList.add("changed");
          this.marked.push([r.value, now]);
        }
      }
      const time = clock(p.time);
      if (r.time.textContent !== time) r.time.textContent = time;
    }
    this.pending.clear();
    if (added) {
      this.count();
      this.onAdded();
    }
  }

  // Names from a fresh list, written only where they differ.
  rename(points) {
    for (const p of points) {
      const r = this.rows.get(p.code);
      const name = p.name || "";
      if (r && r.name !== name) {
        r.name = name;
        r.tr.cells[1].textContent = name;
      }
    }
  }

  // A point the gateway began to upload since the table was built, in code order.
  insert(p) {
    const tr = this.row(p);
    let lo = 0;
    let hi = this.codes.length;
    while (lo < hi) {
      const mid = (lo + hi) >> 1;
      if (this.codes[mid] < p.code) lo = mid + 1;
      else hi = mid;
    }
    this.body.insertBefore(tr, lo < this.codes.length ? this.rows.get(this.codes[lo]).tr : null);
    this.codes.splice(lo, 0, p.code);
    if (this.filterText) tr.hidden = !this.matches(p.code, p.name || "");
  }

  unmark(before) {
    let i = 0;
    while (i < this.marked.length && this.marked[i][1] <= before) this.marked[i++][0].classList.remove("changed");
    if (i) this.marked.splice(0, i);
  }

  matches(code, name) {
    return String(code).includes(this.filterText) || name.toLowerCase().includes(this.filterText);
  }

  filter(text) {
    this.filterText = text.trim().toLowerCase();
    for (const [code, r] of this.rows) r.tr.hidden = this.filterText !== "" && !this.matches(code, r.name);
    this.count();
  }

  count() {
    const shown = this.filterText ? [...this.rows.values()].filter((r) => !r.tr.hidden).length : this.rows.size;
    this.countEl.textContent = shown === this.rows.size ? "(" + shown + ")" : "(" + shown + " of " + this.rows.size + ")";
  }

  setStale(stale) {
    this.table.classList.toggle("stale", stale);
  }

  value(code) {
    const r = this.rows.get(code);
    return r ? r.value.textContent : undefined;
  }
}
