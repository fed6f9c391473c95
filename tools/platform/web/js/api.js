// The platform's HTTP API as the console uses it. Failures come back as
// {ok: false, status, error} rather than exceptions, so that a platform that
// restarts or a gateway that vanished shows a line, not a dead page.

const TOKEN_KEY = "lumbra-platform-token";

export function gatewayPath(sn, rest = "") {
  return "/api/gateways/" + encodeURIComponent(sn) + rest;
}

async function answer(res) {
  const body = await res.json().catch(() => null);
  if (res.ok) return { ok: true, status: res.status, data: body };
  return { ok: false, status: res.status, error: (body && body.error) || res.statusText || "HTTP " + res.status };
}

function unreachable(e) {
  return { ok: false, status: 0, error: "the platform does not answer (" + e.message + ")" };
}

export async function getJson(path) {
  try {
    return await answer(await fetch(path, { cache: "no-store" }));
  } catch (e) {
    return unreachable(e);
  }
}

// Writes need "Authorization: Bearer <token>" when the platform listens
// beyond loopback; the token is kept for this browser tab only.
export function token() {
  return sessionStorage.getItem(TOKEN_KEY) || "";
}

export function setToken(text) {
  if (text) sessionStorage.setItem(TOKEN_KEY, text);
  else sessionStorage.removeItem(TOKEN_KEY);
}

export async function postJson(path, body) {
  const headers = { "Content-Type": "application/json" };
  if (token()) headers.Authorization = "Bearer " + token();
  try {
    return await answer(await fetch(path, { method: "POST", headers, body: JSON.stringify(body) }));
  } catch (e) {
    return unreachable(e);
  }
}

// The server-sent events of one gateway: "points", "alarm" and "gateway".
// After a break the browser reconnects by itself; what changed meanwhile is
// not replayed, so onResync reloads. A refused stream (the platform has too
// many open) is tried again after a pause.
export class LiveStream {
  constructor(handlers) {
    this.handlers = handlers;
    this.source = null;
    this.retry = 0;
  }

  open(sn) {
    this.close();
    this.sn = sn;
    const source = new EventSource("/api/events?sn=" + encodeURIComponent(sn));
    this.source = source;
    let broken = false;
    source.onopen = () => {
      this.handlers.state("live", true);
      if (broken) this.handlers.resync();
      broken = false;
    };
    source.onerror = () => {
      broken = true;
      this.handlers.state("reconnecting", false);
      if (source.readyState === EventSource.CLOSED && this.source === source)
        this.retry = setTimeout(() => this.open(sn), 5000);
    };
    for (const kind of ["points", "alarm", "gateway"]) {
      source.addEventListener(kind, (e) => {
        let change;
        try {
          change = JSON.parse(e.data);
        } catch (err) {
          console.warn("unreadable " + kind + " event", e.data);
          return;
        }
        this.handlers[kind](change);
      });
    }
  }

  close() {
    clearTimeout(this.retry);
    if (this.source) this.source.close();
    this.source = null;
  }
}
