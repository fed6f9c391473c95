// The alarm events of one gateway, newest first. An event pushed by the
// stream shows at once as "waiting"; the platform acknowledges it to the
// gateway right after storing it, and the next reload (soon after) shows
// that, and an alarm's recovery, in the same row.
import { cell, dateTime } from "./format.js";

export class AlarmsTable {
  constructor(table, countEl) {
    this.body = table.tBodies[0];
    this.countEl = countEl;
    this.rows = new Map();  // event id -> {tr, acked, recovered}
  }

  load(list) {
    const order = list.map((a) => this.update(a).tr);
    const keep = new Set(list.map((a) => a.id));
    for (const id of this.rows.keys()) if (!keep.has(id)) this.rows.delete(id);
    this.body.replaceChildren(...order);
    this.count();
  }

  clear() {
    this.rows.clear();
    this.body.replaceChildren();
    this.count();
  }

  // A pushed event: stored, but its acknowledgement not yet known.
  add(a) {
    if (this.rows.has(a.id)) return;
    this.body.prepend(this.update(a).tr);
    this.count();
  }

  update(a) {
    let r = this.rows.get(a.id);
    if (!r) {
      const tr = document.createElement("tr");
      tr.dataset.id = a.id;
      tr.className = a.type === "recovery" ? "recovery" : "alarm level" + a.level;
      cell(tr, dateTime(a.time), "time");
      cell(tr, a.index, "index");
      cell(tr, a.level, "level");
      cell(tr, a.type, "type");
      cell(tr, a.note, "note");
      r = { tr, acked: cell(tr, "", "acked"), recovered: cell(tr, "", "recovered") };
      this.rows.set(a.id, r);
    }
    const acked = a.acked === true ? "yes" : "waiting";
    if (r.acked.textContent !== acked) r.acked.textContent = acked;
    r.tr.classList.toggle("unacked", a.acked !== true);
    let recovered = "";
    if (a.type === "alarm" && "recovered" in a) recovered = a.recovered ? dateTime(a.recovered_time) : "active";
    if (a.type === "alarm" && !("recovered" in a)) recovered = r.recovered.textContent;
    r.recovered.textContent = recovered;
    r.tr.classList.toggle("active", recovered === "active");
    return r;
  }

  count() {
    const active = [...this.rows.values()].filter((r) => r.tr.classList.contains("active")).length;
    this.countEl.textContent = "(" + this.rows.size + (active ? ", " + active + " active" : "") + ")";
  }
}
