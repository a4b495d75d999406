// Prints the records of the agent's groups as JSON: in the order of a poll, then those of the start
// alone.
#include <cstdio>
#include <set>
#include <string>

#include "agent/orders.h"

namespace {

std::string Quoted(const char *text) {
  if (text == nullptr) {
    return "null";
  }
  std::string quoted = "\"";
  for (const char *c = text; *c != '\0'; c++) {
    if (*c == '"' || *c == '\\') {
      quoted += '\\';
    }
    quoted += *c;
  }
  return quoted + "\"";
}

const char *Truth(bool value) {
  return value ? "true" : "false";
}

void Print(const group &g, bool started, bool polled, bool *first) {
  printf("%s\n  {\"name\": %s, \"title\": %s, \"size\": %d,\n", *first ? "" : ",",
         Quoted(g.name).c_str(), Quoted(g.title).c_str(), g.data_size);
  printf("   \"started\": %s, \"polled\": %s, \"each_poll\": %s,\n", Truth(started), Truth(polled),
         Truth(g.each_poll));
  printf("   \"absence\": %s, \"kept\": [", Quoted(g.absence).c_str());
  for (const kept_file *const *file = g.kept; file != nullptr && *file != nullptr; file++) {
    printf("%s%s", file == g.kept ? "" : ", ", Quoted((*file)->name).c_str());
  }
  printf("],\n   \"variables\": [");
  for (int slot = 0; slot < g.variables.count; slot++) {
    const variable &v = g.variables.first[slot];
    printf("%s\n    {\"name\": %s, \"size\": %d, \"type\": %d, \"access\": %d}",
           slot == 0 ? "" : ",", Quoted(v.name).c_str(), v.size, v.type, v.access);
  }
  printf("]}");
  *first = false;
}

bool IsIn(const group *const *order, const group *g) {
  while (*order != nullptr && *order != g) {
    order++;
  }
  return *order != nullptr;
}

}  // namespace

int main() {
  bool first = true;
  std::set<const group *> listed;
  printf("[");
  for (const group *const *order : {poll_order, last_order, start_order, detail_order}) {
    for (; *order != nullptr; order++) {
      for (const group *g = *order; g != nullptr && listed.insert(g).second; g = g->along) {
        const bool detail = IsIn(detail_order, *order);
        Print(*g, detail || IsIn(start_order, *order) || IsIn(last_order, *order),
              detail || IsIn(poll_order, *order), &first);
      }
    }
  }
  printf("\n]\n");
  return 0;
}
