// What net-snmp never releases, once for each start in one process. For one source of a program.
#ifndef VEX_TESTS_UNIT_FRAMEWORK_LIBRARY_LEAKS_H
#define VEX_TESTS_UNIT_FRAMEWORK_LIBRARY_LEAKS_H

#if defined(__SANITIZE_ADDRESS__)
extern "C" __attribute__((visibility("default"))) const char *__lsan_default_suppressions() {
  return "leak:netsnmp_init_mib_internals\nleak:netsnmp_container_get_binary_array\n"
         "leak:netsnmp_certs_agent_init\n";
}
#endif

#endif
