// The values table of one gateway. Built once per gateway from the API; live
// changes then update their cells in place, at most once a frame, so that a
// gateway with 10,000 points uploading every second costs text writes, not a
// new table. Rows sit in blocks of 100 that the browser neither lays out nor
// paints while they are scrolled away, and columns are fixed, so a changed
// text never reflows the rest. A changed value is marked for a moment.
import { clock } from "./format.js";

const MARK_MS = 1200;
const BLOCK_ROWS = 100;
const ROW_PX = 25;  // .row's height in console.css: what a block not yet drawn is assumed to take

function span(row, text, className) {
  const s = document.createElement("span");
  s.className = className;
  s.textContent = text;
  row.append(s);
  return s;
}

export class PointsTable {
  // onAdded: points appeared that the table did not have (their names are
  // not in the stream).
  constructor(grid, countEl, onPick, onAdded) {
    this.grid = grid;
    this.body = grid.querySelector(".grid-body");
    this.countEl = countEl;
    this.onAdded = onAdded;
    this.rows = new Map();  // code -> {row, name, nameCell, value, time}
    this.codes = [];  // ascending, to place a point that appears later
    this.pending = new Map();  // code -> the latest change not yet shown
    this.marked = [];  // [cell, when marked], oldest first
    this.frame = 0;
    this.filterText = "";
    this.body.addEventListener("click", (e) => {
      const row = e.target.closest(".row");
      if (row) onPick(Number(row.dataset.code), this.rows.get(Number(row.dataset.code)).name);
    });
    // A cut value shows whole on hover; set then rather than at every change.
    this.body.addEventListener("mouseover", (e) => {
      if (e.target.classList.contains("value")) e.target.title = e.target.textContent;
    });
    setInterval(() => this.unmark(performance.now() - MARK_MS), 300);
  }

  load(points) {
    cancelAnimationFrame(this.frame);
    this.frame = 0;
    this.pending.clear();
    this.marked = [];
    this.rows.clear();
    const blocks = document.createDocumentFragment();
    for (let i = 0; i < points.length; i += BLOCK_ROWS) {
      const block = this.block(Math.min(BLOCK_ROWS, points.length - i));
      for (const p of points.slice(i, i + BLOCK_ROWS)) block.append(this.row(p));
      blocks.append(block);
    }
    this.codes = [...this.rows.keys()].sort((a, b) => a - b);
    this.body.replaceChildren(blocks);
    this.count();
    if (this.filterText) this.filter(this.filterText);
  }

  block(rows) {
    const block = document.createElement("div");
    block.className = "block";
    block.style.containIntrinsicSize = "auto " + rows * ROW_PX + "px";
    return block;
  }

  row(p) {
    const row = document.createElement("div");
    row.className = "row";
    row.dataset.code = p.code;
    span(row, p.code, "code");
    const nameCell = span(row, p.name || "", "name");
    const value = span(row, p.value, "value");
    const time = span(row, clock(p.time), "time");
    this.rows.set(p.code, { row, name: p.name || "", nameCell, value, time });
    return row;
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

  // A point the gateway began to upload since the table was built, in code order.
  insert(p) {
    const row = this.row(p);
    let lo = 0;
    let hi = this.codes.length;
    while (lo < hi) {
      const mid = (lo + hi) >> 1;
      if (this.codes[mid] < p.code) lo = mid + 1;
      else hi = mid;
    }
    if (lo < this.codes.length) {
      const next = this.rows.get(this.codes[lo]).row;
      next.parentNode.insertBefore(row, next);
    } else {
      let last = this.body.lastElementChild;
      if (!last || last.childElementCount >= BLOCK_ROWS) last = this.body.appendChild(this.block(BLOCK_ROWS));
      last.append(row);
    }
    this.codes.splice(lo, 0, p.code);
    if (this.filterText) row.hidden = !this.matches(p.code, p.name || "");
  }

  // Names from a fresh list, written only where they differ.
  rename(points) {
    for (const p of points) {
      const r = this.rows.get(p.code);
      const name = p.name || "";
      if (r && r.name !== name) {
        r.name = name;
        r.nameCell.textContent = name;
      }
    }
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
    for (const [code, r] of this.rows) r.row.hidden = this.filterText !== "" && !this.matches(code, r.name);
    this.count();
  }

  count() {
    const shown = this.filterText ? [...this.rows.values()].filter((r) => !r.row.hidden).length : this.rows.size;
    this.countEl.textContent = shown === this.rows.size ? "(" + shown + ")" : "(" + shown + " of " + this.rows.size + ")";
  }

  setStale(stale) {
    this.grid.classList.toggle("stale", stale);
  }
}
