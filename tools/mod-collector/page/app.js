// The collector's page: reads the JSON API every 5 seconds and draws what it answers. No library: the DOM, fetch
// and an inline SVG for the timeline.
"use strict";

// The timeline's step for each window, so that it draws 60 to 100 bars.
const steps = { "15m": "15s", "1h": "1m", "6h": "5m", "24h": "15m", "7d": "2h" };
let since = "1h";

function el(tag, text, cls) {
  const e = document.createElement(tag);
  if (text !== undefined) e.textContent = text;
  if (cls) e.className = cls;
  return e;
}

function hostPort(ip, port) {
  return (ip.includes(":") ? "[" + ip + "]" : ip) + ":" + port;
}

function protoName(p) {
  return p === 6 ? "TCP" : p === 17 ? "UDP" : "proto " + p;
}

// The flow as the command line prints it: "TCP 10.0.0.1:1234 -> 10.0.0.2:80".
function flowText(f) {
  if (!f) return "(no flow in sample)";
  return protoName(f.ip_proto) + " " + hostPort(f.src_ip, f.src_port) + " -> " + hostPort(f.dst_ip, f.dst_port);
}

function shortTime(iso) {
  return new Date(iso).toLocaleString();
}

function age(iso) {
  const s = Math.max(0, Math.round((Date.now() - new Date(iso).getTime()) / 1000));
  if (s < 120) return s + " s";
  if (s < 7200) return Math.round(s / 60) + " min";
  return Math.round(s / 3600) + " h";
}

async function api(path) {
  const r = await fetch(path, { cache: "no-store" });
  const body = await r.json();
  if (!r.ok) throw new Error(body.error || r.statusText);
  return body;
}

function fill(tbody, rows) {
  tbody.replaceChildren(...rows);
}

async function drawStatus() {
  const s = await api("api/status");
  document.getElementById("status").textContent =
    s.storage + " · received START " + s.received.start + ", STOP " + s.received.stop + " from " + s.sources +
    " sources · stored " + s.stored + " (" + s.duplicates + " already stored) · not stored " + s.not_stored +
    " · queue " + s.queue_depth + "/" + s.queue_capacity + (s.writing ? "" : " · DATABASE FAILING") +
    " · updated " + new Date().toLocaleTimeString();
}

async function drawOpen() {
  const a = await api("api/lives?open=1&limit=50");
  const section = document.getElementById("open");
  fill(section.querySelector("tbody"), a.lives.map((l) => {
    const tr = el("tr");
    tr.append(el("td", shortTime(l.seen)), el("td", l.source), el("td", flowText(l.flow), "flow"),
      el("td", l.reason), el("td", age(l.seen)));
    return tr;
  }));
  section.querySelector(".empty").hidden = a.lives.length > 0;
}

function topLabel(kind, row) {
  if (kind === "flows") return flowText(row.flow);
  if (kind === "reasons") return row.reason;
  if (kind === "sources") return row.source;
  return row.protocol;
}

async function drawTop(section) {
  const kind = section.dataset.top;
  const a = await api("api/top/" + kind + "?since=" + since + "&limit=10");
  const most = Math.max(1, ...a.rows.map((r) => r.lives));
  const head = el("tr");
  head.append(el("th", kind.slice(0, -1)), el("th", "lives"), el("th", "reports"), el("th"));
  fill(section.querySelector("tbody"), [head, ...a.rows.map((r) => {
    const tr = el("tr");
    const bar = el("td", undefined, "bar");
    const fillBar = el("div");
    fillBar.style.width = (100 * r.lives / most) + "%";
    bar.append(fillBar);
    tr.append(el("td", topLabel(kind, r), "key"), el("td", String(r.lives), "num"), el("td", String(r.reports), "num"), bar);
    return tr;
  })]);
}

async function drawTimeline() {
  const a = await api("api/timeline?since=" + since + "&step=" + steps[since]);
  const svg = document.querySelector("#timeline svg");
  const ns = "http://www.w3.org/2000/svg";
  const most = Math.max(1, ...a.points.map((p) => p.lives));
  const w = 800 / Math.max(1, a.points.length);
  svg.replaceChildren(...a.points.map((p, i) => {
    const rect = document.createElementNS(ns, "rect");
    const h = 150 * p.lives / most;
    rect.setAttribute("x", (i * w + 0.5).toFixed(2));
    rect.setAttribute("width", Math.max(1, w - 1).toFixed(2));
    rect.setAttribute("y", (160 - h).toFixed(2));
    rect.setAttribute("height", h.toFixed(2));
    rect.dataset.lives = p.lives;
    const title = document.createElementNS(ns, "title");
    title.textContent = shortTime(p.at) + ": " + p.lives + " new lives";
    rect.append(title);
    return rect;
  }));
  document.getElementById("timeline-step").textContent =
    "(per " + a.step + "; " + a.points.reduce((n, p) => n + p.lives, 0) + " in the window)";
  document.getElementById("timeline-from").textContent = a.points.length ? shortTime(a.points[0].at) : "";
  document.getElementById("timeline-to").textContent = "now";
}

async function refresh() {
  const parts = [drawStatus(), drawOpen(), drawTimeline(), ...[...document.querySelectorAll(".top")].map(drawTop)];
  const results = await Promise.allSettled(parts);
  const failed = results.find((r) => r.status === "rejected");
  if (failed) document.getElementById("status").textContent = "error: " + failed.reason.message;
}

function choose(window) {
  since = window;
  for (const b of document.querySelectorAll("#windows button")) b.classList.toggle("on", b.dataset.since === since);
  refresh();
}

for (const b of document.querySelectorAll("#windows button")) b.addEventListener("click", () => choose(b.dataset.since));
choose(since);
setInterval(refresh, 5000);
