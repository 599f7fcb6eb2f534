// Lines over time, one colour for each channel; reports are red marks. Zooming filters the lines.
"use strict";

const timeline = {
    graph: null,
  factor: 0,  // how many steps of the data make one of the chart

  rows() {
    const {start, width, counts} = data.timeline;
    const rows = [];
    const length = Math.max(0, ...counts.map(of => of.length));
    for (let i = 0; i < length + timeline.factor; i += timeline.factor)
      rows.push([new Date(start + i * width), ...counts.map(of => of.slice(i, i + timeline.factor).reduce((sum, count) => sum + count, 0))]);
    return rows;
  },

  // Steps as fine as the range in sight allows.
  refine(milliseconds) {
    const mostBars = 250;
    const factor = Math.max(1, Math.ceil(milliseconds / data.timeline.width / mostBars));
    if (factor === timeline.factor) return;
    timeline.factor = factor;
    if (timeline.graph) timeline.graph.updateOptions({file: timeline.rows()});
  },


  start() {
    timeline.refine(data.timeline.width * Math.max(0, ...data.timeline.counts.map(of => of.length)));
    const rows = timeline.rows();
    if (rows.length < 2 || data.channels.length === 0) return document.getElementById("timeline").remove();
    timeline.graph = new Dygraph(document.getElementById("chart"), rows, {
      labels: ["time", ...data.channels], stackedGraph: true, stepPlot: true, fillAlpha: 0.75, strokeWidth: 0.5,
      labelsUTC: true, legend: "follow", xLabelHeight: 0, showRangeSelector: rows.length > 2, rangeSelectorHeight: 32, animatedZooms: false,
      colors: data.channels.map((name, index) => channelColour(index)), highlightCircleSize: 0, includeZero: true,
      ...timeline.themeColours(), underlayCallback: timeline.markReports, zoomCallback: timeline.zoomed, drawCallback: timeline.drawn,
      interactionModel: Dygraph.defaultInteractionModel,  // with a range selector a drag would pan
      legendFormatter: timeline.legend, axes: {y: {axisLabelWidth: 42}},
    });
    document.getElementById("channels").append(...data.channels.map((name, index) =>
      element("button", {class: "chip", type: "button", "aria-pressed": "true", style: ["--colour", channelColour(index)],
        onclick: event => timeline.toggle(event.currentTarget, index)}, safe(name))));
  },

  themeColours() {
    const style = getComputedStyle(document.documentElement);
    return {gridLineColor: style.getPropertyValue("--grid"), axisLineColor: style.getPropertyValue("--line"),
            rangeSelectorPlotStrokeColor: style.getPropertyValue("--soft"), rangeSelectorPlotFillColor: style.getPropertyValue("--soft")};
  },

  legend(shown) {
    if (shown.x === undefined || shown.x === null) return "";
    const rows = shown.series.filter(series => series.isVisible && series.y > 0)
      .map(series => element("div", {}, element("b", {style: ["color", series.color]}, series.label), " " + series.y));
    return element("div", {}, element("div", {}, timeText(shown.x)), ...rows).outerHTML;
  },

  markReports(canvas, area, graph) {
    canvas.fillStyle = getComputedStyle(document.documentElement).getPropertyValue("--bad");
    for (const report of data.reports) {
      const x = graph.toDomXCoord(report.milliseconds);
      if (report.kind === "exception" && x >= area.x && x <= area.x + area.w) canvas.fillRect(x - 1, area.y, 2, area.h);
    }
  },

  zoomed(from, to) {
    const whole = !timeline.graph || !timeline.graph.isZoomed("x");
    lines.setRange(whole ? null : from, whole ? null : to);
  },

  // The range selector draws without a zoom's end; it is followed at rest.
  drawn(graph, isInitial) {
    if (isInitial) return;
    clearTimeout(timeline.rest);
    timeline.rest = setTimeout(() => {
      const [from, to] = graph.xAxisRange();
      const zoomed = graph.isZoomed("x");
      timeline.refine(to - from);

      if ((zoomed ? from : null) !== lines.from) timeline.zoomed(from, to);
    }, 150);
  },

  toggle(chip, index) {
    const visible = chip.getAttribute("aria-pressed") !== "true";
    chip.setAttribute("aria-pressed", String(visible));
    timeline.graph.setVisibility(index, visible);
  },

  zoom(from, to) {
    if (timeline.graph) timeline.graph.updateOptions({dateWindow: [from, to]});
    lines.setRange(from, to);
  },

  showAll() { if (timeline.graph) timeline.graph.resetZoom(); },
  restyle() { if (timeline.graph) timeline.graph.updateOptions(timeline.themeColours()); },
};
