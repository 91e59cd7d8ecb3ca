// SPDX-License-Identifier: Apache-2.0
#pragma once

/// How a drawing looks, and what its page does.
///
/// Threads: constants.

#include <cstddef>
#include <string_view>

namespace TesselTool {

/// The classes of chips come from Style.h.
inline constexpr std::string_view drawingStyle = R"(:root, svg {
  --page: #ffffff; --ink: #1c2430; --soft: #66707e; --free: #e9ecf1; --unused: #f2f4f7;
  --range: #c9d3e3; --filled: #54709c; --line: #8a96a8;
}
@media (prefers-color-scheme: dark) {
  :root, svg {
    --page: #12161c; --ink: #e8ecf2; --soft: #98a3b3; --free: #232a34; --unused: #1a2028;
    --range: #33415a; --filled: #7f9fd0; --line: #66758c;
  }
}
svg { font-family: system-ui, "Segoe UI", "DejaVu Sans", sans-serif; fill: var(--ink); }
.page { fill: var(--page); } .free { fill: var(--free); } .unused { fill: var(--unused); }
.range { fill: var(--range); } .filled { fill: var(--filled); } .frame, .axis { fill: var(--line); }
.title { font-size: 24px; font-weight: 650; } .name { font-size: 18px; font-weight: 650; }
.meta, .legend { font-size: 13px; fill: var(--soft); } .onbar { font-size: 12px; }
.tick { font-size: 11px; fill: var(--soft); }
.mid { text-anchor: middle; } .end { text-anchor: end; }
)";

inline constexpr std::string_view pageStyle = R"(body { margin: 0; background: var(--page); }
body > svg { display: block; margin: 0 auto; max-width: 100%; height: auto; }
.tip:hover rect:not(.unused), .hot rect { stroke: var(--ink); stroke-width: 1.5; }
.grid .tip { cursor: pointer; }
#told {
  position: fixed; max-width: 34em; padding: .6em .8em; border-radius: 6px; pointer-events: none;
  font: 12.5px/1.5 ui-monospace, "DejaVu Sans Mono", monospace; white-space: pre-wrap;
  background: var(--ink); color: var(--page); box-shadow: 0 4px 18px #0005;
}
#told::first-line { font-weight: 700; }
)";

/// The titles become a box beside the pointer; a click leads to a square by its address, so that it
/// can be passed on.
inline constexpr std::string_view pageScript = R"(const told = document.getElementById("told");
for (const tip of document.querySelectorAll(".tip")) {
  const title = tip.querySelector("title");
  tip.dataset.told = title.textContent;
  title.remove();
}
function tell(tip, x, y) {
  told.hidden = !tip;
  if (!tip) return;
  told.textContent = tip.dataset.told;
  told.style.left = Math.min(x + 14, innerWidth - told.offsetWidth - 8) + "px";
  const below = y + told.offsetHeight + 24 <= innerHeight;
  told.style.top = (below ? y + 16 : y - told.offsetHeight - 12) + "px";
}
addEventListener("mousemove", e => tell(e.target.closest(".tip"), e.clientX, e.clientY));
addEventListener("click", e => {
  const tip = e.target.closest(".grid .tip");
  if (!tip) return;
  const grid = tip.parentElement;
  const slot = [...grid.children].indexOf(tip) * grid.dataset.slots;
  location.hash = encodeURIComponent(grid.dataset.table) + "/" + slot;
});
function openAddress() {
  for (const hot of document.querySelectorAll(".hot")) hot.classList.remove("hot");
  const at = location.hash.lastIndexOf("/");
  if (at < 0) return;
  const table = decodeURIComponent(location.hash.slice(1, at));
  const grid = [...document.querySelectorAll(".grid")].find(g => g.dataset.table === table);
  const tip = grid?.children[Math.floor(location.hash.slice(at + 1) / grid.dataset.slots)];
  if (!tip) return;
  tip.classList.add("hot");
  tip.scrollIntoView({ block: "center" });
  const box = tip.getBoundingClientRect();
  tell(tip, box.right, box.bottom);
}
addEventListener("hashchange", openAddress);
openAddress();
)";

} // namespace TesselTool
