// The list of gateways the platform has heard of: online state and how long
// ago each was last heard. Rows are kept and updated, so a refresh does not
// lose the selection or the scroll position.
import { ago, cell } from "./format.js";

export class GatewayList {
  constructor(table, onPick) {
    this.body = table.tBodies[0];
    this.rows = new Map();  // sn -> {tr, state, seen, lastSeen}
    this.selected = "";
    this.body.addEventListener("click", (e) => {
      const tr = e.target.closest("tr");
      if (tr) onPick(tr.dataset.sn);
    });
  }

  get size() {
    return this.rows.size;
  }

  first() {
    const online = [...this.rows.entries()].find(([, r]) => r.online);
    return online ? online[0] : this.rows.keys().next().value || "";
  }

  online(sn) {
    const r = this.rows.get(sn);
    return !!(r && r.online);
  }

  load(list) {
    const seen = new Set();
    const order = [];
    for (const g of list) {
      seen.add(g.sn);
      order.push(this.update(g).tr);
    }
    for (const [sn, r] of this.rows)
      if (!seen.has(sn)) {
        r.tr.remove();
        this.rows.delete(sn);
      }
    this.body.replaceChildren(...order);
  }

  // One gateway's state, as listed or as pushed ("gateway" events carry no time).
  update(g) {
    let r = this.rows.get(g.sn);
    if (!r) {
      const tr = document.createElement("tr");
      tr.dataset.sn = g.sn;
      cell(tr, g.sn, "sn");
      r = { tr, state: cell(tr, ""), seen: cell(tr, "", "seen"), lastSeen: 0, online: false };
      this.rows.set(g.sn, r);
      tr.classList.toggle("selected", g.sn === this.selected);
    }
    if (g.last_seen) r.lastSeen = g.last_seen;
    if (typeof g.online === "boolean") r.online = g.online;
    r.state.textContent = r.online ? "online" : "offline";
    r.tr.classList.toggle("offline", !r.online);
    r.seen.textContent = ago(r.lastSeen);
    r.seen.title = r.lastSeen ? new Date(r.lastSeen * 1000).toLocaleString() : "";
    return r;
  }

  heard(sn) {
    const r = this.rows.get(sn);
    if (r) this.update({ sn, online: true, last_seen: Math.floor(Date.now() / 1000) });
  }

  select(sn) {
    this.selected = sn;
    for (const [key, r] of this.rows) r.tr.classList.toggle("selected", key === sn);
  }

  tick() {
    const now = Date.now() / 1000;
    for (const r of this.rows.values()) r.seen.textContent = ago(r.lastSeen, now);
  }
}
