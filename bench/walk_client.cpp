// walk_client [getnext|getbulk|columns] ADDRESS ROUNDS COLUMN...: fetches the table whose columns
// (numeric OIDs) are given: by GETNEXT along each column (snmpwalk), by GETBULK over all columns
// side by side, ten rows a request (snmptable), and by GETBULK along each column by itself, 25 rows
// a request (what collectors do); in one of the ways or in all. It prints for each how many
// variables there were and the microseconds per variable of the quickest, the middle and the
// slowest round. A client of its own, so that starting a process does not count.
#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

using Oid = std::vector<oid>;

Oid Parse(const char *text) {
  Oid result;
  char *end = nullptr;
  for (; *text != '\0'; text = *end == '.' ? end + 1 : end) {
    result.push_back(strtoul(text, &end, 10));
    if (end == text) {
      fprintf(stderr, "walk_client: not an OID: %s\n", text);
      exit(2);
    }
  }
  return result;
}

bool Below(const netsnmp_variable_list *v, const Oid &column) {
  return v->type != SNMP_ENDOFMIBVIEW && v->name_length > column.size() &&
         memcmp(v->name, column.data(), column.size() * sizeof(oid)) == 0;
}

netsnmp_pdu *Ask(netsnmp_session *session, netsnmp_pdu *request) {
  netsnmp_pdu *response = nullptr;
  if (snmp_synch_response(session, request, &response) != STAT_SUCCESS ||
      response->errstat != SNMP_ERR_NOERROR) {
    fprintf(stderr, "walk_client: no answer\n");
    exit(1);
  }
  return response;
}

// A whole walk; returns the number of variables.
long WalkByNext(netsnmp_session *session, const std::vector<Oid> &columns) {
  long count = 0;
  for (const Oid &column : columns) {
    Oid at = column;
    for (bool inside = true; inside;) {
      netsnmp_pdu *request = snmp_pdu_create(SNMP_MSG_GETNEXT);
      snmp_add_null_var(request, at.data(), at.size());
      netsnmp_pdu *response = Ask(session, request);
      const netsnmp_variable_list *v = response->variables;
      inside = Below(v, column);
      if (inside) {
        at.assign(v->name, v->name + v->name_length);
        count++;
      }
      snmp_free_pdu(response);
    }
  }
  return count;
}

long FetchSideBySide(netsnmp_session *session, const std::vector<Oid> &columns, long rows) {
  long count = 0;
  std::vector<Oid> at = columns;
  for (bool inside = true; inside;) {
    netsnmp_pdu *request = snmp_pdu_create(SNMP_MSG_GETBULK);
    request->non_repeaters = 0;
    request->max_repetitions = rows;
    for (const Oid &oid : at) {
      snmp_add_null_var(request, oid.data(), oid.size());
    }
    netsnmp_pdu *response = Ask(session, request);
    size_t n = 0;
    for (const netsnmp_variable_list *v = response->variables; v != nullptr && inside;
         v = v->next_variable, n++) {
      const size_t column = n % columns.size();
      inside = Below(v, columns[column]);
      if (inside) {
        at[column].assign(v->name, v->name + v->name_length);
        count++;
      }
    }
    inside = inside && n > 0;
    snmp_free_pdu(response);
  }
  return count;
}

long FetchByBulk(netsnmp_session *session, const std::vector<Oid> &columns) {
  return FetchSideBySide(session, columns, 10);
}

long FetchColumns(netsnmp_session *session, const std::vector<Oid> &columns) {
  long count = 0;
  for (const Oid &column : columns) {
    count += FetchSideBySide(session, {column}, 25);
  }
  return count;
}

void Measure(const char *name, int rounds,
             long (*fetch)(netsnmp_session *, const std::vector<Oid> &), netsnmp_session *session,
             const std::vector<Oid> &columns) {
  std::vector<double> each;
  long count = 0;
  for (int i = 0; i < rounds; i++) {
    const auto from = std::chrono::steady_clock::now();
    count = fetch(session, columns);
    const double us =
        std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - from).count();
    if (count == 0) {
      fprintf(stderr, "walk_client: the table is empty\n");
      exit(1);
    }
    each.push_back(us / static_cast<double>(count));
  }
  std::sort(each.begin(), each.end());
  printf("%s %ld %.2f %.2f %.2f\n", name, count, each.front(), each[each.size() / 2], each.back());
}

}  // namespace

int main(int argc, char **argv) {
  constexpr struct {
    const char *name;
    long (*fetch)(netsnmp_session *, const std::vector<Oid> &);
  } kWays[] = {{"getnext", WalkByNext}, {"getbulk", FetchByBulk}, {"columns", FetchColumns}};
  const char *way = "";
  for (const auto &one : kWays) {
    if (argc > 1 && strcmp(argv[1], one.name) == 0) {
      way = one.name;
    }
  }
  if (way[0] != '\0') {
    argv++;
    argc--;
  }
  const int rounds = argc > 2 ? atoi(argv[2]) : 0;
  if (argc < 4 || rounds < 1) {
    fprintf(stderr, "usage: walk_client [getnext|getbulk|columns] ADDRESS ROUNDS COLUMN...\n");
    return 2;
  }
  setenv("MIBS", "", 1);
  init_snmp("walk_client");
  netsnmp_session settings;
  snmp_sess_init(&settings);
  settings.version = SNMP_VERSION_2c;
  settings.peername = argv[1];
  settings.community = reinterpret_cast<u_char *>(const_cast<char *>("public"));
  settings.community_len = 6;
  netsnmp_session *session = snmp_open(&settings);
  if (session == nullptr) {
    snmp_perror("walk_client");
    return 1;
  }
  std::vector<Oid> columns;
  for (int i = 3; i < argc; i++) {
    columns.push_back(Parse(argv[i]));
  }
  for (const auto &one : kWays) {
    if (way[0] == '\0' || strcmp(way, one.name) == 0) {
      Measure(one.name, rounds, one.fetch, session, columns);
    }
  }
  snmp_close(session);
  return 0;
}
