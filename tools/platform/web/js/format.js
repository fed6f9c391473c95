// Times on the page. Point times are when the platform took the value; alarm
// and history times are the gateway's own stamps, shown as they are.

let lastClock = { t: NaN, text: "" };

// "14:05:09": many points share a second, so the last answer is kept.
export function clock(seconds) {
  if (seconds === lastClock.t) return lastClock.text;
  const text = Number.isFinite(seconds) ? new Date(seconds * 1000).toLocaleTimeString([], { hour12: false }) : "";
  lastClock = { t: seconds, text };
  return text;
}

// "14:05:09" today, "Nov 24 14:05:09" before.
export function dateTime(seconds) {
  if (!Number.isFinite(seconds)) return "";
  const d = new Date(seconds * 1000);
  const time = d.toLocaleTimeString([], { hour12: false });
  if (d.toDateString() === new Date().toDateString()) return time;
  return d.toLocaleDateString([], { month: "short", day: "numeric" }) + " " + time;
}

// "just now", "42 s ago", "5 min ago", "3 h ago", or a date past a day.
export function ago(seconds, now = Date.now() / 1000) {
  if (!seconds) return "never";
  const d = Math.max(0, Math.round(now - seconds));
  if (d < 2) return "just now";
  if (d < 120) return d + " s ago";
  if (d < 7200) return Math.round(d / 60) + " min ago";
  if (d < 86400) return Math.round(d / 3600) + " h ago";
  return dateTime(seconds);
}

export function cell(tr, text, className) {
  const td = tr.insertCell();
  td.textContent = text;
  if (className) td.className = className;
  return td;
}
