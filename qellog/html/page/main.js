// Head, figures and the tables below; starts everything.
"use strict";

function tile(value, label, bad) {
  return element("div", {class: "tile" + (bad ? " bad" : "")}, element("b", {}, value), element("span", {}, label));
}

function showHead() {
  const summary = data.summary;
  const damage = Object.values(summary.damage).reduce((sum, count) => sum + count, 0);
  document.title = "Logs of " + data.title;
  document.getElementById("title").append(safe(data.title));
  const range = summary.first ? summary.first.replace("T", " ") + " to " + summary.last.replace("T", " ") : "no lines";
  document.getElementById("range").textContent = range + " · " + number(summary.files) + " files, " + sizeText(summary.bytes);
  const errors = summary.errors.reduce((sum, error) => sum + error.count, 0);
  document.getElementById("tiles").append(
    tile(number(summary.lines), "lines"), tile(number(summary.processes.length), "processes"),
    tile(number(summary.reports.exception), "exception reports", summary.reports.exception > 0),
    tile(number(errors), "lines with an error"), tile(number(summary.retries.endedBadly), "retries given up", summary.retries.endedBadly > 0),
    tile(number(damage), "damaged places", damage > 0));
  document.getElementById("footer").append(data.program + " · the chart is drawn by dygraphs (MIT licence) · times are those of the logs' machine");
}

function sizeText(bytes) {
  for (const unit of ["bytes", "KiB", "MiB"]) {
    if (bytes < 1024) return (unit === "bytes" ? bytes : bytes.toFixed(1)) + " " + unit;
    bytes /= 1024;
  }
  return bytes.toFixed(1) + " GiB";
}

// Rows are arrays; a click on a heading sorts by its column.
function sortableTable(caption, heads, rows) {
  if (rows.length === 0) return "";
  const body = element("tbody");
  let sorted = -1, down = false;
  const fill = () => body.replaceChildren(...rows.map(row => element("tr", {}, ...row.map(value =>
    element("td", typeof value === "number" ? {class: "number"} : {}, typeof value === "number" ? number(value) : safe(value))))));
  const headCells = heads.map((head, index) => element("th", {onclick: () => {
    down = sorted === index ? !down : typeof rows[0][index] === "number";
    sorted = index;
    rows.sort((a, b) => (a[index] < b[index] ? -1 : a[index] > b[index] ? 1 : 0) * (down ? -1 : 1));
    headCells.forEach((cell, place) => { if (place === index) cell.dataset.sort = down ? "down" : "up"; else delete cell.dataset.sort; });
    fill();
  }}, head));
  fill();
  return element("table", {}, element("caption", {}, caption), element("thead", {}, element("tr", {}, ...headCells)), body);
}

function showFigures() {
  const summary = data.summary;
  const text = time => time.replace("T", " ");
  document.getElementById("figures").append(
    sortableTable("Channels", ["Channel", "Records", "Bytes", ""], summary.channels.map(c => [c.name, c.records, c.bytes, c.fullFiles ? "full" : ""])),
    sortableTable("Processes", ["Process", "First", "Last", "Lines", "Reports"], summary.processes.slice(0, 200).map(p =>
      [fileName(p.program) + "[" + p.processId + "]", text(p.first), text(p.last).slice(11), p.lines, p.reports])),
    sortableTable("Crashes", ["Count", "Cause"], summary.reports.causes.map(c => [c.count, c.text])),
    sortableTable("Source positions", ["Lines", "Source"], summary.sources.map(s => [s.count, s.text])),
    sortableTable("Errors", ["Lines", "Error", "Name"], summary.errors.map(e => [e.count, e.error, e.name])),
    sortableTable("Longest waits", ["Milliseconds", "What", "Until"], summary.waits.map(w => [w.milliseconds, w.what, text(w.time)])),
    sortableTable("Damage", ["Count", "Kind"], Object.entries(summary.damage).map(([kind, count]) => [count, kind])));
}

function startTheme() {
  const dark = window.matchMedia("(prefers-color-scheme: dark)");
  const set = isDark => {
    document.documentElement.dataset.theme = isDark ? "dark" : "light";
    timeline.restyle();
  };
  set(dark.matches);
  dark.addEventListener("change", event => set(event.matches));
  document.getElementById("theme").addEventListener("click", () => set(document.documentElement.dataset.theme !== "dark"));
}

startTheme();
showHead();
showReports();
timeline.start();
lines.start();
showFigures();
