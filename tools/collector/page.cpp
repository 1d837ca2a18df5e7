#include "page.h"

namespace velmora::collector {

// Data reaches the document only through textContent, so a value can never become markup.
const char* PageHtml() {
    return R"HTML(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>velmora-collector</title>
<style>
body { font: 14px/1.4 system-ui, sans-serif; margin: 0; background: #f5f6f8; color: #1d2330; }
header { position: sticky; top: 0; z-index: 1; display: flex; gap: 16px; align-items: center;
         padding: 10px 16px; background: #1d2330; color: #fff; }
header h1 { font-size: 16px; margin: 0; }
#filter { flex: 1; max-width: 480px; padding: 5px 8px; border: 0; border-radius: 4px; }
#count { font-size: 13px; opacity: 0.85; }
main { padding: 12px 16px; }
.hit { background: #fff; border: 1px solid #d9dde5; border-radius: 6px; margin: 0 0 12px; padding: 10px 12px; }
.hit h2 { display: flex; flex-wrap: wrap; gap: 4px 14px; font-size: 14px; margin: 0 0 6px; }
.hit h2 .name { font-weight: 700; }
.hit h2 span { font-weight: 400; color: #44506a; }
.hit h2 .failed { color: #b00020; font-weight: 700; }
table { border-collapse: collapse; width: 100%; margin: 2px 0 8px; }
caption { text-align: left; font-size: 12px; font-weight: 600; color: #6a7489; padding: 4px 0; }
th, td { text-align: left; vertical-align: top; padding: 2px 8px; border-bottom: 1px solid #eef0f4;
         font: 12.5px/1.4 ui-monospace, monospace; word-break: break-all; white-space: pre-wrap; }
th { width: 30%; font-weight: 600; color: #44506a; }
.url { font: 12px/1.4 ui-monospace, monospace; color: #44506a; word-break: break-all; }
#note { color: #6a7489; }
</style>
</head>
<body>
<header>
<h1>velmora-collector</h1>
<input id="filter" type="search" placeholder="Filter: text in a key, a value or the URL" autofocus>
<span id="count"></span>
</header>
<main>
<p id="note">Waiting for hits&hellip;</p>
<div id="hits"></div>
</main>
<script>
"use strict";
const MAX_SHOWN = 10000;
const list = document.getElementById("hits");
const note = document.getElementById("note");
const count = document.getElementById("count");
const filter = document.getElementById("filter");
let lastId = 0;
const searchText = new WeakMap();

function element(tag, text, className) {
  const node = document.createElement(tag);
  if (text !== undefined) node.textContent = text;
  if (className) node.className = className;
  return node;
}

function table(title, entries) {
  const node = element("table");
  node.appendChild(element("caption", title));
  const keys = Object.keys(entries);
  if (keys.length === 0) {
    const row = node.insertRow();
    row.appendChild(element("td", "(none)"));
  }
  for (const key of keys) {
    const row = node.insertRow();
    row.appendChild(element("th", key));
    row.appendChild(element("td", entries[key]));
  }
  return node;
}

function render(hit) {
  const node = element("section", undefined, "hit");
  const vars = hit.variables || {};
  const context = hit.contextData || {};
  const heading = element("h2");
  heading.appendChild(element("span", "#" + hit.id, "name"));
  const title = vars.pageName || vars.pev2 || "";
  if (title) heading.appendChild(element("span", title, "name"));
  heading.appendChild(element("span", "report suite " + hit.reportSuites));
  heading.appendChild(element("span", hit.platform + ", s" + hit.cacheBuster));
  heading.appendChild(element("span", "received " + hit.received));
  if (hit.ts !== undefined) {
    heading.appendChild(element("span", "ts " + hit.ts + " (" + new Date(hit.ts * 1000).toISOString() + ")"));
  }
  heading.appendChild(element("span", "answered " + hit.status, hit.status === 200 ? "" : "failed"));
  node.appendChild(heading);
  node.appendChild(table("Variables", vars));
  node.appendChild(table("Context data", context));
  node.appendChild(element("div", hit.url, "url"));
  const words = [hit.url, hit.reportSuites, hit.platform];
  for (const map of [vars, context]) {
    for (const key of Object.keys(map)) words.push(key + "=" + map[key]);
  }
  searchText.set(node, words.join("\n").toLowerCase());
  return node;
}

function applyFilter() {
  const wanted = filter.value.trim().toLowerCase();
  let shown = 0;
  for (const node of list.children) {
    const visible = wanted === "" || searchText.get(node).includes(wanted);
    node.style.display = visible ? "" : "none";
    if (visible) shown++;
  }
  const total = list.children.length;
  count.textContent = total + (total === 1 ? " hit" : " hits") + (wanted === "" ? "" : ", " + shown + " shown");
  note.style.display = total === 0 ? "" : "none";
}

async function poll() {
  try {
    const answer = await fetch("/hits.json?since=" + lastId, {cache: "no-store"});
    if (answer.ok) {
      const data = await answer.json();
      if (data.received < lastId) {  // the collector was restarted: start over
        lastId = 0;
        list.replaceChildren();
      } else if (data.hits.length > 0) {
        lastId = data.hits[0].id;
        const fresh = document.createDocumentFragment();
        for (const hit of data.hits) fresh.appendChild(render(hit));
        list.insertBefore(fresh, list.firstChild);
        while (list.children.length > MAX_SHOWN) list.lastChild.remove();
      }
      note.textContent = "Waiting for hits\u2026";
      applyFilter();
    }
  } catch (error) {
    note.style.display = "";
    note.textContent = "The collector does not answer (" + error.message + "); trying again.";
  }
  setTimeout(poll, 1000);
}

filter.value = new URLSearchParams(location.search).get("filter") || "";
filter.addEventListener("input", applyFilter);
poll();
</script>
</body>
</html>
)HTML";
}

}  // namespace velmora::collector
