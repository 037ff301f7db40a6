// How the page of "tesk-bam report" looks.

#pragma once

namespace tesk::tool {

// One accent colour; every text has a contrast of at least 4.5 to what is behind it,
// every bar one of 3.
constexpr char const* REPORT_STYLE = R"css(
:root {
  color-scheme: light dark;
  --page: #f6f7f7; --card: #ffffff; --ink: #1b2328; --quiet: #566169;
  --line: #dfe4e6; --faint: #eaeeef; --accent: #1c7186;
}
@media (prefers-color-scheme: dark) {
  :root {
    --page: #12171a; --card: #1a2125; --ink: #e7edef; --quiet: #9fabb1;
    --line: #333d43; --faint: #262f34; --accent: #5cb6cb;
  }
}
* { box-sizing: border-box; }
html { -webkit-text-size-adjust: 100%; text-size-adjust: 100%; }
body {
  margin: 0; background: var(--page); color: var(--ink);
  font: 15px/1.5 system-ui, -apple-system, "Segoe UI", Roboto, "Noto Sans", "DejaVu Sans", sans-serif;
  font-variant-numeric: tabular-nums;
}
main, header, footer { max-width: 1120px; margin: 0 auto; padding: 0 24px; }
header { padding-top: 40px; }
h1, h2, h3, p, dl, dd, ul { margin: 0; }
h1 { font-size: 26px; line-height: 1.25; font-weight: 650; letter-spacing: -0.01em; overflow-wrap: anywhere; }
h2 { font-size: 19px; line-height: 1.3; font-weight: 650; margin: 44px 0 16px; }
h3 { font-size: 15px; font-weight: 650; margin-bottom: 12px; overflow-wrap: anywhere; }
.quiet, .note, footer { color: var(--quiet); }
header p { margin-top: 4px; }
.note { font-size: 13px; line-height: 1.45; margin-top: 12px; max-width: 75ch; }
.empty { color: var(--quiet); padding: 20px 0 8px; }
.tiles { display: grid; gap: 12px; margin-top: 24px; grid-template-columns: repeat(auto-fit, minmax(148px, 1fr)); }
.tiles div { background: var(--card); border: 1px solid var(--line); border-radius: 10px; padding: 12px 14px; min-width: 0; }
.tiles dt { font-size: 13px; color: var(--quiet); }
.tiles dd { font-size: 20px; line-height: 27px; font-weight: 600; white-space: nowrap; }
.tiles dd.long { font-size: 15px; }
.cards { display: grid; gap: 20px; grid-template-columns: repeat(auto-fit, minmax(min(100%, 400px), 1fr)); }
.stack { display: grid; gap: 20px; align-content: start; min-width: 0; }
.card { background: var(--card); border: 1px solid var(--line); border-radius: 10px; padding: 18px 20px; min-width: 0; }
.wide { grid-column: 1 / -1; }
.card ul { padding-left: 18px; }
.card li { overflow-wrap: anywhere; }
.plot { display: block; width: 100%; max-width: 560px; height: auto; }
.plot text { font-size: 11.5px; fill: var(--quiet); text-rendering: geometricPrecision; }
.plot .marked { fill: var(--ink); font-weight: 600; }
.plot .grid { stroke: var(--faint); fill: none; }
.plot .axis { stroke: var(--quiet); fill: none; }
.plot .marker { stroke: var(--ink); stroke-dasharray: 3 3; fill: none; }
.bar, .area { fill: var(--accent); }
.scroll { overflow-x: auto; }
.scroll + ul { margin-top: 12px; }
.scroll:focus-visible, summary:focus-visible { outline: 2px solid var(--accent); outline-offset: 2px; }
table { border-collapse: collapse; width: 100%; font-size: 14px; }
th, td { text-align: right; padding: 4px 0 4px 16px; border-bottom: 1px solid var(--faint); white-space: nowrap; font-weight: 400; vertical-align: baseline; }
thead th { color: var(--quiet); font-size: 13px; border-bottom-color: var(--line); }
tbody tr:last-child > * { border-bottom: 0; }
th:first-child, td:first-child { text-align: left; padding-left: 0; }
.words { text-align: left; }
.share { width: 34%; min-width: 84px; }
.share span { display: block; height: 10px; min-width: 1px; border-radius: 1px; background: var(--accent); print-color-adjust: exact; -webkit-print-color-adjust: exact; forced-color-adjust: none; }
.rest > * { color: var(--quiet); }
.rest .share span { background: var(--quiet); }
details { margin-top: 12px; font-size: 14px; }
summary { color: var(--quiet); font-size: 13px; cursor: pointer; width: fit-content; }
details .scroll { margin-top: 8px; max-height: 320px; overflow-y: auto; }
.track + .track { margin-top: 18px; }
.track p { display: flex; flex-wrap: wrap; gap: 0 12px; font-size: 13px; color: var(--quiet); margin-bottom: 4px; }
.track b { color: var(--ink); font-size: 14px; font-weight: 600; overflow-wrap: anywhere; }
.strip { display: block; height: 44px; border-bottom: 1px solid var(--quiet); background: var(--faint); print-color-adjust: exact; -webkit-print-color-adjust: exact; }
footer { font-size: 13px; padding-top: 32px; padding-bottom: 48px; }
@media (max-width: 560px) {
  main, header, footer { padding-left: 14px; padding-right: 14px; }
  header { padding-top: 24px; }
  h1 { font-size: 22px; }
  .card { padding: 14px; }
  th, td { padding-left: 10px; }
  .words { white-space: normal; }
  .share { min-width: 56px; }
  .plot text { font-size: 13px; }
}
@media print {
  :root {
    color-scheme: light;
    --page: #ffffff; --card: #ffffff; --ink: #000000; --quiet: #444444;
    --line: #bbbbbb; --faint: #e4e4e4; --accent: #1c7186;
  }
  body { font-size: 12px; }
  main, header, footer { max-width: none; padding-left: 0; padding-right: 0; }
  .cards { grid-template-columns: 1fr 1fr; }
  .card, .tiles div, .track { break-inside: avoid; }
  .wide { break-inside: auto; }
  h2, h3 { break-after: avoid; }
  .plot text { font-size: 13px; }
  details { display: none; }
}
)css";

}  // namespace tesk::tool
