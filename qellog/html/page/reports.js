// The reports with their sections folded.
"use strict";

const aroundMilliseconds = 5000;

function folded(title, text, open) {
  if (!text) return "";
  const details = element("details", open ? {open: ""} : {}, element("summary", {}, title), element("pre", {}, safe(text)));
  return details;
}

function values(list) { return (list || []).map(entry => entry.name.padEnd(28) + " " + entry.value).join("\n"); }

function stackText(report) {
  return (report.stack || []).map(frame => frame.address + "  " +
    (frame.function ? frame.function + " + 0x" + frame.displacement.toString(16) : "?")).join("\n");
}

function statusSections(status) {
  if (!status) return [];
  const modules = status.modules.map(module => module.start + " - " + module.end + "  " + module.name).join("\n");
  const regions = status.freeRegions.map(region => region.start + " - " + region.end + "  " + region.mebibytes + " MiB").join("\n");
  return [folded("Process", values(status.banner)), folded("Memory", values(status.freeSums) + "\n\n" + values(status.memory)),
          folded("Modules", modules), folded("Free address space", regions), folded("System", values(status.system)),
          folded("Drives", status.drives.join("\n"))];
}

function showLinesAround(report) {
  timeline.zoom(report.milliseconds - aroundMilliseconds, report.milliseconds + aroundMilliseconds);
  document.getElementById("lines").scrollIntoView({behavior: "smooth"});
}

function reportCard(report) {
  const program = report.program ? fileName(report.program) + "[" + report.processId + "]  " : "";
  const what = report.cause ? element("span", {class: "cause"}, safe(report.cause)) : safe(report.heading);
  const figures = (report.figures || []).map(figure => figure.name.padEnd(34) + figure.mebibytesPerSecond.toFixed(2).padStart(12) + " MiB/s");
  return element("details", {class: "report-card", id: "report-" + report.number},
    element("summary", {}, element("span", {class: "number"}, String(report.number)), report.time.replace("T", " ") + "  " +
      report.kind + "  ", safe(program), what, report.isWhole ? "" : " (cut short)"),
    element("button", {class: "around", type: "button", onclick: () => showLinesAround(report)}, "Lines round it"),
    folded("Heading", report.heading + (report.source ? "\ncaught at " + report.source + "(" + report.line + ")" : "") +
      (report.exception ? "\n" + report.exception.code + " " + report.exception.name + ", parameters " + report.exception.parameters.join(" ") : "") +
      "\n" + report.file + ":" + report.fileLine, true),
    folded("Stack", stackText(report), true), folded("Figures", figures.join("\n"), true),
    folded("Registers", values(report.registers)), folded("Code", (report.code || []).join("\n")),
    folded("Raw stack", (report.rawStack || []).join("\n")), folded("Floating-point and extended registers", (report.areas || []).join("\n")),
    ...statusSections(report.status));
}

function showReports() {
  const section = document.getElementById("reports");
  if (data.reports.length === 0) return section.remove();
  if (data.reportCount > data.reports.length) section.append(element("p", {}, "The first " + data.reports.length + " of " + number(data.reportCount) + "."));
  for (const report of data.reports) report.milliseconds = Date.parse(report.time + "Z");
  section.append(...data.reports.map(reportCard));
}
