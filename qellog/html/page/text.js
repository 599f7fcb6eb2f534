// Texts of the logs become text nodes, never markup. What would turn or hide text is shown by name.
"use strict";

const invisible = /[\u0000-\u0008\u000b-\u001f\u007f-\u009f\u00ad\u061c\u180e\u200b-\u200f\u2028-\u202e\u2060-\u206f\ufeff\ufff9-\ufffb]/g;

function codeName(character) {
  const code = character.codePointAt(0);
  return code < 0x80 ? "\\x" + code.toString(16).padStart(2, "0")
                     : "<U+" + code.toString(16).toUpperCase().padStart(4, "0") + ">";
}

function element(name, attributes, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes || {})) {
    if (key.startsWith("on")) made.addEventListener(key.slice(2), value);
    else if (key === "style") made.style.setProperty(...value);
    else if (value !== undefined) made.setAttribute(key, value);
  }
  made.append(...children);
  return made;
}

// The text in a node of its own direction, with what is invisible made visible.
function safe(text) {
  const whole = element("bdi");
  let begin = 0;
  for (const match of String(text).matchAll(invisible)) {
    whole.append(text.slice(begin, match.index), element("span", {class: "escape"}, codeName(match[0])));
    begin = match.index + match[0].length;
  }
  whole.append(String(text).slice(begin));
  return whole;
}

// Times are local times of the logs' machine: they are counted and shown without any zone.
function timeText(milliseconds) {
  return new Date(milliseconds).toISOString().replace("T", " ").replace("Z", "");
}

function fileName(path) { return path.slice(Math.max(path.lastIndexOf("/"), path.lastIndexOf("\\")) + 1); }

function number(value) { return value.toLocaleString("en"); }

const data = JSON.parse(document.getElementById("data").textContent);
const palette = ["#4e79a7", "#f28e2b", "#59a14f", "#e15759", "#76b7b2", "#b6992d", "#b07aa1", "#ff9da7", "#9c755f",
                 "#86bcb6", "#8cd17d", "#d37295"];
function channelColour(index) { return palette[index % palette.length]; }
