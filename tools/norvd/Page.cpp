#include "Page.h"

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <thread>

#include "Drawing.h"
#include "Log.h"
#include "text/Text.h"

namespace Norvd {

namespace {

const char* const style = R"(
:root{color-scheme:light dark;--ink:#1b1f24;--paper:#fff;--faint:#667;--line:#d5d9e0;--good:#1a7f37;--warn:#9a6700;--bad:#c4232b;--soft:#f5f6f8}
@media(prefers-color-scheme:dark){:root{--ink:#e6e9ee;--paper:#14171b;--faint:#99a3b0;--line:#353b44;--good:#4cc26a;--warn:#e0a92e;--bad:#ff7b72;--soft:#1d2127}}
*{box-sizing:border-box}
body{margin:0;font:16px/1.45 system-ui,sans-serif;color:var(--ink);background:var(--paper)}
main,header,footer{max-width:110rem;margin:0 auto;padding:.75rem clamp(.75rem,2vw,2rem)}
h1{font-size:1.1rem;margin:0;font-weight:600}
h2{font-size:1rem;margin:1.5rem 0 .5rem}
.state{font-size:clamp(1.1rem,2.2vw,1.7rem);margin:.4rem 0;overflow-wrap:anywhere}
.state::before{content:"";display:inline-block;width:.7em;height:.7em;border-radius:50%;margin-right:.5em;background:var(--warn)}
.state.good::before{background:var(--good)}.state.bad::before{background:var(--bad)}
.faint{color:var(--faint);overflow-wrap:anywhere}
.notice{border-left:4px solid var(--bad);background:var(--soft);padding:.5rem .75rem;margin:.5rem 0;overflow-wrap:anywhere}
.scroll{overflow-x:auto;border:1px solid var(--line);border-radius:6px;background:var(--soft)}
.scroll:focus-visible,a:focus-visible,summary:focus-visible{outline:3px solid var(--warn)}
table{border-collapse:collapse;width:100%}
th,td{text-align:left;padding:.3rem .6rem;border-bottom:1px solid var(--line);vertical-align:top;overflow-wrap:anywhere}
th{overflow-wrap:normal}
#objects td:nth-child(2),#failures td:first-child{white-space:nowrap}
#objects td:first-child{min-width:6.6rem}
#objects td:nth-child(3){min-width:5.5rem}
td.number,th.number{text-align:right;font-variant-numeric:tabular-nums}
a{color:inherit}
svg.pipeline{display:block;max-width:100%;height:auto;margin:0 auto;min-width:34rem}
svg.pipeline text{fill:var(--ink);stroke:none}
svg.pipeline .node path,svg.pipeline .node polygon{fill:var(--paper);stroke:var(--ink)}
svg.pipeline .edge path{stroke:var(--faint);fill:none}
svg.pipeline .edge polygon{stroke:var(--faint);fill:var(--faint)}
svg.chart{width:100%;height:5rem;display:block}
svg.chart polyline{fill:none;stroke-width:1.5;vector-effect:non-scaling-stroke}
.charts{display:grid;grid-template-columns:repeat(auto-fit,minmax(16rem,1fr));gap:1rem}
.good{color:var(--good)}.bad{color:var(--bad)}.warn{color:var(--warn)}
)";

const char* const script = R"(
const [state,notices,live,lost]=["state","notices","live","lost"].map(id=>document.getElementById(id));
async function renew(){
  try{
    const answer=await fetch(location.pathname,{cache:"no-store"});
    const fresh=new DOMParser().parseFromString(await answer.text(),"text/html");
    const open=[...live.querySelectorAll("details")].map(one=>one.open);
    const held=live.querySelector(".scroll"),left=held?held.scrollLeft:0;
    const focused=document.activeElement?document.activeElement.id:"";
    for(const part of [state,notices,live]){
      const now=fresh.getElementById(part.id).innerHTML;
      if(now!==part.innerHTML)part.innerHTML=now;
    }
    document.title=fresh.title;
    live.querySelectorAll("details").forEach((one,i)=>{one.open=open[i]||one.open});
    const now=live.querySelector(".scroll");if(now)now.scrollLeft=left;
    if(focused){const one=document.getElementById(focused);if(one)one.focus({preventScroll:true})}
    lost.hidden=true;
  }catch(error){lost.hidden=false}
  setTimeout(renew,2000);
}
setTimeout(renew,2000);
)";

const char* colourOf(Standing standing) {
  switch (standing) {
    case Standing::inSync:
      return "good";
    case Standing::refused:
    case Standing::quarantined:
    case Standing::contested:
      return "bad";
    default:
      return "warn";
  }
}

std::string stateClass(const Status& status) {
  if (status.inSync) return "good";
  const auto& picture = status.picture;
  const auto count = [&](Standing standing) {
    return picture ? picture->counts[static_cast<std::size_t>(standing)] : 0;
  };
  const bool bad =
      !status.ready ||
      count(Standing::refused) + count(Standing::quarantined) + count(Standing::contested) != 0;
  return bad ? "bad" : "warn";
}

// Parts of their own, which are told to who listens when they change, and only then.
std::string header(const Status& status) {
  std::string out =
      "<div id=\"state\" role=\"status\"><p class=\"state " + stateClass(status) + "\">" +
      htmlEscaped(status.sentence) + "</p>\n<p class=\"faint\">since " + text(status.since) +
      " · daemon " + htmlEscaped(status.address) +
      (status.version.empty() ? "" : " (" + htmlEscaped(status.version) + ")") + " · document " +
      htmlEscaped(status.document) + (status.observes ? " · only observing" : "") + " · restarts " +
      std::to_string(status.restarts) + "</p></div>\n<div id=\"notices\" role=\"alert\">";
  for (const std::string& notice : status.notices) {
    out += "<p class=\"notice\">" + htmlEscaped(notice) + "</p>\n";
  }
  return out + "</div>\n";
}

std::string counts(const Picture& picture) {
  std::string out = "<p>";
  for (std::size_t i = 0; i < standings; ++i) {
    if (picture.counts[i] == 0 && i != 0) continue;
    const auto standing = static_cast<Standing>(i);
    out += (i == 0 ? "" : " · ") + std::string("<span class=\"") + colourOf(standing) + "\">" +
           Norvctl::grouped(picture.counts[i]) + " " + standingName(standing) + "</span>";
  }
  return out + "</p>\n";
}

// The objects that are not as wanted.
std::string objects(const Picture& picture) {
  constexpr std::size_t most = 200;
  std::string rows;
  std::size_t count = 0;
  for (const auto& [object, status] : picture.objects) {
    if (status.standing == Standing::inSync) continue;
    if (++count > most) continue;
    rows += "<tr><td>" + htmlEscaped(text(object)) + "</td><td class=\"" +
            colourOf(status.standing) + "\">" + standingName(status.standing) + "</td><td>" +
            htmlEscaped(status.text) + "</td><td>" + text(status.since) + "</td></tr>\n";
  }
  std::string out = "<h2>Not in sync</h2>\n";
  if (!picture.plan)
    return out + "<p class=\"bad\">It cannot be said: there is nothing to compare with.</p>\n";
  if (count == 0) return out + "<p class=\"good\">None: all is as wanted.</p>\n";
  out +=
      "<table id=\"objects\"><thead><tr><th>Object</th><th>State</th><th>Why</th><th>Since"
      "</th></tr></thead><tbody>\n" +
      rows + "</tbody></table>\n";
  if (count > most) out += "<p class=\"faint\">and " + std::to_string(count - most) + " more</p>\n";
  return out;
}

std::string failures(const Status& status) {
  std::string out = "<h2>Last failures</h2>\n";
  if (status.failures.empty()) return out + "<p class=\"faint\">None.</p>\n";
  out += "<table id=\"failures\"><thead><tr><th>Time</th><th>What</th></tr></thead><tbody>\n";
  for (auto one = status.failures.rbegin(); one != status.failures.rend(); ++one) {
    out += "<tr><td>" + text(one->time) + "</td><td>" + htmlEscaped(one->text) + "</td></tr>\n";
  }
  return out + "</tbody></table>\n";
}

// A line over the last minutes, its highest value said beside it.
std::string chart(const std::string& title, const char* colour, const std::vector<double>& values) {
  const double highest = values.empty() ? 0 : *std::max_element(values.begin(), values.end());
  std::string points;
  for (std::size_t i = 0; i < values.size(); ++i) {
    char point[48];
    std::snprintf(point, sizeof point, "%zu,%.1f ", i,
                  38 - (highest > 0 ? values[i] / highest * 36 : 0));
    points += point;
  }
  const std::string width = std::to_string(std::max<std::size_t>(values.size(), 2) - 1);
  const std::string what = title + ": " + Norvctl::scaled(values.empty() ? 0 : values.back()) +
                           ", at most " + Norvctl::scaled(highest);
  return "<figure style=\"margin:0\"><figcaption>" + what +
         "</figcaption><svg class=\"chart\" role=\"img\" aria-label=\"" + what +
         "\" viewBox=\"0 0 " + width +
         " 40\" preserveAspectRatio=\"none\"><polyline stroke=\"var(--" + colour + ")\" points=\"" +
         points + "\"/></svg></figure>\n";
}

std::string activity(const Status& status) {
  using Norv::Agent::Outcome;
  std::vector<double> open, good, bad;
  for (std::size_t i = 0; i < status.samples.size(); ++i) {
    const Sample& now = status.samples[i];
    open.push_back(static_cast<double>(now.open));
    double all = 0, right = 0;
    for (std::size_t k = 0; i > 0 && k < Norv::Agent::outcomes; ++k) {
      const auto count = static_cast<double>(now.ended[k] - status.samples[i - 1].ended[k]);
      all += count;
      if (static_cast<Outcome>(k) == Outcome::ok) right += count;
    }
    good.push_back(right);
    bad.push_back(all - right);
  }
  std::string out = "<h2>Commands, last " + duration(std::chrono::seconds(status.samples.size())) +
                    "</h2>\n<div class=\"charts\">" + chart("ok per second", "good", good) +
                    chart("not ok per second", "bad", bad) + chart("under way", "warn", open) +
                    "</div>\n<table><thead><tr><th>Queue</th><th class=\"number\">Waiting</th>"
                    "<th class=\"number\">Most</th></tr></thead><tbody>\n";
  const auto row = [&](const std::string& name, const QueueStatus& queue) {
    out += "<tr><td>" + htmlEscaped(name) + "</td><td class=\"number\">" +
           Norvctl::grouped(queue.now) + "</td><td class=\"number\">" +
           Norvctl::grouped(queue.maximum) + "</td></tr>\n";
  };
  for (const auto& [name, queue] : status.queues) row(name, queue);
  row("(pending)", status.pending);
  out += "</tbody></table>\n<p>";
  for (std::size_t i = 0; i < Norv::Agent::outcomes; ++i) {
    out += (i == 0 ? "" : " · ") + Norvctl::grouped(status.outcomes[i]) + " " +
           outcomeName(static_cast<Outcome>(i));
  }
  return out + "</p>\n";
}

std::string connections(const Picture& picture) {
  constexpr std::size_t most = 500;
  std::string rows;
  std::size_t count = 0;
  for (const auto& [from, to] : picture.live->connections) {
    if (++count > most) continue;
    const auto rate = picture.rates.find(from);
    const bool known = rate != picture.rates.end();
    rows += "<tr><td>" + htmlEscaped(from.module + ":" + std::to_string(from.number)) +
            "</td><td>" + htmlEscaped(std::to_string(to.number) + ":" + to.module) +
            "</td><td class=\"number\">" + (known ? Norvctl::scaled(rate->second.packets) : "") +
            "</td><td class=\"number\">" + (known ? Norvctl::scaled(rate->second.bits) : "") +
            "</td></tr>\n";
  }
  return "<details id=\"connections\"><summary>Connections as a table (" + Norvctl::grouped(count) +
         ")</summary><table><thead><tr><th>From</th><th>To</th><th class=\"number\">packets/s</th>"
         "<th class=\"number\">bit/s</th></tr></thead><tbody>\n" +
         rows + "</tbody></table></details>\n";
}

}  // namespace

std::string htmlEscaped(std::string_view text) {
  std::string out;
  for (const char c : Norvctl::escaped(text)) {
    switch (c) {
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '&':
        out += "&amp;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\'':
        out += "&#39;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

Page::Page() : drawing_(std::make_unique<Drawing>()) {}
Page::~Page() = default;

std::string Page::html(const Status& status) {
  std::string out =
      "<!doctype html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
      "<meta name=\"viewport\" content=\"width=device-width,initial-scale=1\"><title>" +
      std::string(status.inSync ? "in sync" : "NOT in sync") + " · norvd " +
      htmlEscaped(status.address) + "</title><link rel=\"icon\" href=\"data:,\">" +
      "<noscript><meta http-equiv=\"refresh\" content=\"5\"></noscript><style>" + style +
      "</style></head><body>\n<header><h1>norvd · " + htmlEscaped(status.address) +
      "</h1></header>\n<main><p id=\"lost\" class=\"notice\" role=\"alert\" hidden>norvd does not "
      "answer; what stands here is old.</p>" +
      header(status) + "<div id=\"live\">\n";
  if (status.picture) {
    out += counts(*status.picture);
    out += "<h2>Pipeline</h2>\n" + drawing_->html(*status.picture) + connections(*status.picture);
    out += objects(*status.picture);
  }
  out += activity(status) + failures(status);
  out +=
      "</div></main>\n<footer class=\"faint\"><a href=\"/status.json\">status.json</a> · "
      "<a href=\"/metrics\">metrics</a> · <a href=\"/wanted.yaml\">wanted.yaml</a> · "
      "<a href=\"/live.yaml\">live.yaml</a> · <a href=\"/plan.json\">plan.json</a></footer>\n"
      "<script>" +
      std::string(script) + "</script></body></html>\n";
  return out;
}

}  // namespace Norvd
