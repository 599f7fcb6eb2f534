// The table of lines: only the rows in sight exist, so tens of thousands scroll well.
"use strict";

const rowHeight = 24;
// A record is [time, channel, kind, load, program, process, thread, source, line, message, error].
const columns = [
  {name: "Time", value: r => r[0], text: r => timeText(r[0])},
  {name: "Channel", value: r => data.channels[r[1]], text: r => data.channels[r[1]]},
  {name: "ML", value: r => r[3] ?? -1, text: r => r[3] === null ? "" : r[3] + "%"},
  {name: "Process", value: r => r[5], text: r => r[4] < 0 ? "" : fileName(data.programs[r[4]]) + "[" + r[5] + (r[6] ? ":" + r[6] : "") + "]"},
  {name: "Source", value: r => r[7] < 0 ? "" : data.sources[r[7]] + "(" + r[8] + ")", text: r => r[7] < 0 ? "" : data.sources[r[7]] + "(" + r[8] + ")"},
  {name: "Message", value: r => r[9], text: r => r[9]},
];

const lines = {
  shown: data.records, from: null, to: null, sort: 0, down: false, body: null,

  start() {
    const head = element("div", {class: "row head", role: "row"}, ...columns.map((column, index) =>
      element("span", {role: "columnheader", onclick: () => lines.sortBy(index)}, column.name)));
    lines.body = element("div", {class: "body"});
    const table = document.getElementById("table");
    table.append(head, lines.body);
    table.addEventListener("scroll", lines.draw);
    window.addEventListener("beforeprint", () => lines.draw("print"));
    window.addEventListener("afterprint", lines.draw);
    fillSelect("channel", "all channels", data.channels.map((name, index) => [index, name]));
    fillSelect("process", "all processes", processes());
    for (const id of ["text", "channel", "process", "errors"]) document.getElementById(id).addEventListener("input", lines.filter);
    document.getElementById("all").addEventListener("click", lines.showAll);
    lines.filter();
  },

  showAll() {
    for (const id of ["text", "channel", "process"]) document.getElementById(id).value = "";
    document.getElementById("errors").checked = false;
    timeline.showAll();
    lines.setRange(null, null);
  },

  setRange(from, to) {
    lines.from = from;
    lines.to = to;
    lines.filter();
  },

  filter() {
    const text = document.getElementById("text").value.toLowerCase();
    const channel = document.getElementById("channel").value;
    const process = document.getElementById("process").value;
    const errorsOnly = document.getElementById("errors").checked;
    lines.shown = data.records.filter(r =>
      (lines.from === null || (r[0] >= lines.from && r[0] <= lines.to)) &&
      (channel === "" || r[1] === Number(channel)) && (process === "" || r[5] === Number(process)) &&
      (!errorsOnly || isBad(r)) && (text === "" || rowText(r).includes(text)));
    if (lines.sort !== 0 || lines.down) lines.order();
    const range = lines.from === null ? "" : ", " + timeText(lines.from) + " to " + timeText(lines.to).slice(11);
    const held = data.records.length < data.recordCount ? " (the page holds " + number(data.records.length) + ")" : "";
    document.getElementById("shown").textContent = number(lines.shown.length) + " of " + number(data.recordCount) + held + range;
    document.getElementById("table").scrollTop = 0;
    lines.draw();
  },

  sortBy(index) {
    lines.down = lines.sort === index && !lines.down;
    lines.sort = index;
    lines.filter();
  },

  order() {
    const value = columns[lines.sort].value;
    const sign = lines.down ? -1 : 1;
    lines.shown = lines.shown.map((r, index) => [value(r), index, r])
      .sort((a, b) => (a[0] < b[0] ? -sign : a[0] > b[0] ? sign : a[1] - b[1])).map(entry => entry[2]);
  },

  draw(reason) {
    const table = document.getElementById("table");
    const most = 1000;
    const printing = reason === "print";
    const first = printing ? 0 : Math.max(0, Math.floor(table.scrollTop / rowHeight) - 10);
    const count = printing ? most : Math.ceil(table.clientHeight / rowHeight) + 20;
    lines.body.style.height = lines.shown.length * rowHeight + "px";
    lines.body.replaceChildren(...lines.shown.slice(first, first + count).map((r, index) => lines.row(r, first + index)));
    document.querySelectorAll("#table .head > *").forEach((head, index) => {
      if (index === lines.sort) head.dataset.sort = lines.down ? "down" : "up";
      else delete head.dataset.sort;
    });
  },

  row(r, index) {
    const kind = r[2] > 2 ? " report" : isBad(r) ? " bad" : "";
    return element("div", {class: "row" + kind, role: "row", style: ["top", index * rowHeight + "px"], onclick: () => lines.showDetail(r)},
      ...columns.map((column, place) => element("span", place === 1 ? {class: "channel", style: ["--colour", channelColour(r[1])]} : {},
        safe(column.text(r).replaceAll("\n", " ⏎ ")))));
  },

  showDetail(r) {
    const detail = document.getElementById("detail");
    const program = r[4] < 0 ? "" : data.programs[r[4]] + "\n";
    detail.replaceChildren(safe(timeText(r[0]) + "  " + columns[1].text(r) + "  " + columns[3].text(r) + "  " + columns[4].text(r) + "\n" +
      program + (r[10] ? "error " + r[10] + " " + (data.errorNames[r[10]] || "") + "\n" : "") + "\n" + r[9]));
    detail.hidden = false;
  },
};

function isBad(r) { return r[2] > 0 || r[10] > 0 || /^Error|ASSERT : |Error\(/.test(r[9]); }

function rowText(r) { return columns.map(column => column.text(r)).join(" ").toLowerCase(); }

function processes() {
  const names = new Map();
  for (const r of data.records) if (r[4] >= 0) names.set(r[5], fileName(data.programs[r[4]]) + "[" + r[5] + "]");
  return [...names].slice(0, 500);
}

function fillSelect(id, all, options) {
  document.getElementById(id).append(element("option", {value: ""}, all),
    ...options.map(([value, text]) => element("option", {value}, safe(text).textContent)));
}
