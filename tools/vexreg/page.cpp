#include "tools/vexreg/page.h"

#include <algorithm>
#include <map>
#include <optional>

#include "tools/vexreg/values.h"
#include "tools/vexreg/words.h"

namespace vex {
namespace {

constexpr std::string_view kTemplate =
#include "tools/vexreg/report_template.inc"
    ;

constexpr int kHigh = 75;
constexpr int kFull = 90;

std::string Replaced(std::string text, std::string_view mark, std::string_view with) {
  for (size_t at = 0; (at = text.find(mark, at)) != std::string::npos; at += with.size()) {
    text.replace(at, mark.size(), with);
  }
  return text;
}

const char *ClassOf(Mood mood) {
  switch (mood) {
    case Mood::kGood:
      return "good";
    case Mood::kWarning:
      return "warning";
    case Mood::kBad:
      return "bad";
    case Mood::kFaint:
      return "faint";
    case Mood::kPlain:
      break;
  }
  return "";
}

std::string Styled(const std::string &text, const char *name) {
  const std::string safe = HtmlText(text);
  return *name == '\0' ? safe : "<span class=\"" + std::string(name) + "\">" + safe + "</span>";
}

// A bar beside its number, which says the same to those who do not see it.
std::string Bar(int percent) {
  percent = std::clamp(percent, 0, 100);
  const char *level = percent >= kFull ? " bad" : percent >= kHigh ? " warning" : "";
  return "<span class=\"bar" + std::string(level) +
         "\" aria-hidden=\"true\"><span style=\"width:" + std::to_string(percent) +
         "%\"></span></span>" + std::to_string(percent) + " %";
}

class Page {
 public:
  explicit Page(const PageFacts &facts) : facts_(facts) {
    for (const NamedObject &named : facts.objects) {
      const auto row = ParseRowName(named.name);
      rows_[std::string(row ? row->group : std::string_view(named.name))].push_back(&named.object);
    }
  }

  std::string Text() {
    Identity();
    Processors();
    Memory();
    FileSystems();
    Rows("siblings", "Sibling agents", "Agents of the same suite on this host", "host/sibling",
         {{"Name", "tlxHoSiblingName"},
          {"Runs", "tlxHoSiblingPresent"},
          {"Condition", "tlxHoSiblingCondition"},
          {"Health", "tlxHoSiblingHealth"}});
    Rows("firmware", "Firmware", "Devices and the versions of their firmware", "host/fwver",
         {{"Device", "tlxHoFwVerDisplayName"},
          {"Version", "tlxHoFwVerVersion"},
          {"Place", "tlxHoFwVerLocation"},
          {"Key", "tlxHoFwVerKeyString"}});
    Rows("software", "Software", "Packages that belong to the suite", "host/swver",
         {{"Name", "tlxHoSwVerName"},
          {"Version", "tlxHoSwVerVersion"},
          {"Kind", "tlxHoSwVerType"},
          {"Description", "tlxHoSwVerDescription"}});
    Findings();
    Log();
    const std::string name = ValueOf("host/info", "tlxHoSystemName");
    std::string page(kTemplate);
    page = Replaced(page, "@SECTIONS@", sections_);
    page = Replaced(
        page, "@SUBTITLE@",
        HtmlText((facts_.source.empty() ? "" : "Captured: " + facts_.source + ". ") + facts_.made));
    page = Replaced(page, "@FOOTER@",
                    HtmlText("Made by vexreg " + facts_.program + "; agent " +
                             ValueOf("host/agent", "tlxHoAgentVersion") + "."));
    page = Replaced(page, "@TITLE@", HtmlText(name.empty() ? "Host report" : name));
    return Replaced(page, "@BODY@", body_);
  }

 private:
  const FileVariable *Find(const FileObject &object, std::string_view name) const {
    for (const FileVariable &variable : object.variables) {
      if (variable.name == name) {
        return &variable;
      }
    }
    return nullptr;
  }

  const FileObject *Object(const std::string &name) const {
    const auto found = rows_.find(name);
    return found != rows_.end() ? found->second.front() : nullptr;
  }

  std::optional<Shown> ShownOf(const FileObject *object, std::string_view name) const {
    const FileVariable *const variable = object != nullptr ? Find(*object, name) : nullptr;
    return variable != nullptr ? std::optional(ShowValue(*object, *variable)) : std::nullopt;
  }

  std::string ValueOf(const std::string &object, std::string_view name) const {
    const auto shown = ShownOf(Object(object), name);
    return shown ? shown->text : "";
  }

  std::optional<int32_t> NumberOf(const FileObject *object, std::string_view name) const {
    const FileVariable *const variable = object != nullptr ? Find(*object, name) : nullptr;
    return variable != nullptr ? IntegerOf(*object, *variable) : std::nullopt;
  }

  void Begin(const std::string &id, const std::string &title) {
    sections_ += "<li><a href=\"#" + id + "\">" + title + "</a></li>\n";
    body_ += "<section aria-labelledby=\"" + id + "\">\n<h2 id=\"" + id + "\">" + title + "</h2>\n";
  }
  void End() {
    body_ += "</section>\n";
  }
  void BeginTable(const std::string &kind, const std::string &caption) {
    // Reached by the keyboard, so that what is wider than the screen can be scrolled.
    body_ += "<div class=\"scroll\" role=\"region\" tabindex=\"0\" aria-label=\"" + caption +
             "\">\n<table class=\"" + kind + "\">\n<caption>" + caption + "</caption>\n";
  }
  void EndTable() {
    body_ += "</tbody>\n</table>\n</div>\n";
  }
  void Head(const std::vector<std::string> &titles) {
    body_ += "<thead><tr>";
    for (const std::string &title : titles) {
      body_ += "<th scope=\"col\">" + title + "</th>";
    }
    body_ += "</tr></thead>\n<tbody>\n";
  }
  void Fact(const std::string &title, const std::string &html) {
    if (!html.empty()) {
      body_ += "<tr><th scope=\"row\">" + title + "</th><td>" + html + "</td></tr>\n";
    }
  }
  void Cell(const std::string &title, const std::string &html, const char *kind = "") {
    body_ += "<td" + std::string(*kind != '\0' ? " class=\"" + std::string(kind) + "\"" : "") +
             " data-label=\"" + title + "\">" + html + "</td>";
  }
  std::string Html(const FileObject *object, std::string_view name) const {
    const auto shown = ShownOf(object, name);
    return shown ? Styled(shown->text, ClassOf(shown->mood)) : "";
  }

  void Identity() {
    Begin("identity", "Identity");
    if (facts_.objects.empty()) {
      body_ += "<p class=\"bad\">The agent publishes nothing.</p>\n";
    }
    BeginTable("facts", "What the host is");
    body_ += "<tbody>\n";
    struct {
      const char *title, *object, *variable;
    } constexpr kFacts[] = {
        {"Name", "host/info", "tlxHoSystemName"},
        {"Condition", "host/misc", "tlxHoMibCondition"},
        {"System", "host/info", "tlxHoName"},
        {"Version", "host/info", "tlxHoVersion"},
        {"Description", "host/info", "tlxHoDesc"},
        {"Kernel", "host/info", "tlxHosysDescr"},
        {"Role", "host/info", "tlxHoSystemRole"},
        {"Role in detail", "host/info", "tlxHoSystemRoleDetail"},
        {"Appliance", "host/appliance", "tlxApApplianceDescription"},
        {"Hardware class", "host/hwinfo", "tlxHoHWInfoPlatform"},
        {"GUID", "host/misc", "tlxHoGUIDCanonical"},
        {"Up for", "host/load", "tlxHoUptime"},
        {"Agent started", "host/misc", "tlxHoConfigChangedDate"},
    };
    for (const auto &fact : kFacts) {
      Fact(fact.title, Html(Object(fact.object), fact.variable));
    }
    EndTable();
    End();
  }

  void Processors() {
    const auto found = rows_.find("host/cpu");
    if (found == rows_.end()) {
      return;
    }
    Begin("processors", "Processors");
    const FileObject *const load = Object("host/load");
    if (load != nullptr) {
      body_ += "<p>Load: " + Html(load, "tlxHoLoadOne") + ", " + Html(load, "tlxHoLoadFive") +
               ", " + Html(load, "tlxHoLoadFifteen") + " (1, 5, 15 minutes)</p>\n";
    }
    BeginTable("rows", "Use of the processors, as averages");
    Head({"Processor", "1 minute", "5 minutes", "1 hour"});
    for (const FileObject *object : found->second) {
      body_ += "<tr><th scope=\"row\">" + Html(object, "tlxHoCpuUtilUnitIndex") + "</th>";
      for (const auto &[title, name] :
           {std::pair("1 minute", "tlxHoCpuUtilMin"), std::pair("5 minutes", "tlxHoCpuUtilFiveMin"),
            std::pair("1 hour", "tlxHoCpuUtilHour")}) {
        const int percent = NumberOf(object, name).value_or(-1);
        Cell(title, percent >= 0 ? Bar(percent) : Html(object, name), "number");
      }
      body_ += "</tr>\n";
    }
    EndTable();
    End();
  }

  void MemoryRow(const std::string &title, const char *size, const char *free) {
    const FileObject *const object = Object("host/memory");
    const int64_t all = NumberOf(object, size).value_or(-1);
    const int64_t left = NumberOf(object, free).value_or(-1);
    body_ += "<tr><th scope=\"row\">" + title + "</th>";
    Cell("Size", Html(object, size), "number");
    Cell("Free", Html(object, free), "number");
    Cell("Used",
         all > 0 && left >= 0 && left <= all ? Bar(static_cast<int>((all - left) * 100 / all)) : "",
         "number");
    body_ += "</tr>\n";
  }

  void Memory() {
    if (Object("host/memory") == nullptr) {
      return;
    }
    Begin("memory", "Memory");
    const FileObject *const detail = Object("host/memdetail");
    if (detail != nullptr) {
      body_ += "<p>Available to programs: " + Html(detail, "tlxHoMemoryAvailable") +
               "; cached: " + Html(detail, "tlxHoMemoryCached") + "</p>\n";
    }
    BeginTable("rows", "Memory and swap space");
    Head({"Kind", "Size", "Free", "Used"});
    MemoryRow("Memory", "tlxHoPhysicalMemorySize", "tlxHoPhysicalMemoryFree");
    MemoryRow("Swap", "tlxHoPagingMemorySize", "tlxHoPagingMemoryFree");
    EndTable();
    End();
  }

  void FileSystems() {
    const auto found = rows_.find("host/filesys");
    if (found == rows_.end()) {
      return;
    }
    Begin("filesystems", "File systems");
    BeginTable("rows", "Fullest first");
    Head({"File system", "Size", "Used", "Use"});
    std::vector<const FileObject *> sorted = found->second;
    std::stable_sort(sorted.begin(), sorted.end(),
                     [this](const FileObject *a, const FileObject *b) {
                       return NumberOf(a, "tlxHoFileSysPercentSpaceUsed").value_or(-1) >
                              NumberOf(b, "tlxHoFileSysPercentSpaceUsed").value_or(-1);
                     });
    for (const FileObject *object : sorted) {
      const int percent = NumberOf(object, "tlxHoFileSysPercentSpaceUsed").value_or(-1);
      const std::string name = Html(object, "tlxHoFileSysDesc");
      body_ +=
          "<tr><th scope=\"row\">" + (name.empty() ? Styled("not known", "faint") : name) + "</th>";
      Cell("Size", Html(object, "tlxHoFileSysSpaceTotal"), "number");
      Cell("Used", Html(object, "tlxHoFileSysSpaceUsed"), "number");
      Cell("Use", percent >= 0 ? Bar(percent) : "", "number");
      body_ += "</tr>\n";
    }
    EndTable();
    End();
  }

  void Rows(const std::string &id, const std::string &title, const std::string &caption,
            const std::string &group,
            const std::vector<std::pair<std::string, std::string>> &columns) {
    const auto found = rows_.find(group);
    if (found == rows_.end()) {
      return;
    }
    Begin(id, title);
    BeginTable("rows", caption);
    std::vector<std::string> titles;
    titles.reserve(columns.size());
    for (const auto &column : columns) {
      titles.push_back(column.first);
    }
    Head(titles);
    for (const FileObject *object : found->second) {
      body_ += "<tr><th scope=\"row\">" + Html(object, columns.front().second) + "</th>";
      for (size_t i = 1; i < columns.size(); i++) {
        Cell(columns[i].first, Html(object, columns[i].second));
      }
      body_ += "</tr>\n";
    }
    EndTable();
    End();
  }

  void Findings() {
    if (facts_.findings.empty()) {
      return;
    }
    Begin("findings", "Doctor's findings");
    BeginTable("rows", "What was checked, failures first");
    Head({"State", "Finding"});
    for (const char *state : {"fail", "note", "ok"}) {
      for (const PageFinding &finding : facts_.findings) {
        if (finding.state != state) {
          continue;
        }
        const bool fails = finding.state == "fail";
        body_ += "<tr><th scope=\"row\">" +
                 Styled(fails ? "FAIL" : finding.state, fails                   ? "bad"
                                                        : finding.state == "ok" ? "good"
                                                                                : "warning") +
                 "</th>";
        body_ += "<td>" + HtmlText(finding.message) + "</td></tr>\n";
      }
    }
    EndTable();
    End();
  }

  void Log() {
    if (facts_.log.empty()) {
      return;
    }
    Begin("log", "The log's last lines");
    body_ += "<pre tabindex=\"0\" role=\"region\" aria-label=\"Log\">";
    for (const std::string &line : facts_.log) {
      body_ += HtmlText(line) + "\n";
    }
    body_ += "</pre>\n";
    End();
  }

  const PageFacts &facts_;
  std::map<std::string, std::vector<const FileObject *>> rows_;
  std::string sections_;
  std::string body_;
};

}  // namespace

std::string HtmlText(std::string_view bytes) {
  std::string html;
  for (const char c : SafeText(bytes)) {
    switch (c) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '>':
        html += "&gt;";
        break;
      case '"':
        html += "&quot;";
        break;
      case '\'':
        html += "&#39;";
        break;
      case '@':  // also the mark of the template
        html += "&#64;";
        break;
      default:
        html += c;
    }
  }
  return html;
}

std::string ReportPage(const PageFacts &facts) {
  return Page(facts).Text();
}

}  // namespace vex
