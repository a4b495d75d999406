/* An agent beside vexhostd: publishes how long it has been running, at each poll.
 *
 *     cc sibling.c $(pkg-config --cflags --libs vexhostd) -o sibling
 *     sudo ./sibling & sleep 20; vexreg show example/clock
 */
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <platform/framework.h>

/* The framework finds these by their names. */
const char *agent;
int32_t poll_time;
char log_dir[80];
struct queue obj_Q;
unsigned char ignore_peer_stop;
int32_t NicCondition;
int32_t PrevNicCondition;

struct clock {
  int32_t seconds;
  char started[32];
};

static struct registry_object *published;
static time_t start;

int init_agent(int argc, char **argv) {
  (void)argc;
  (void)argv;
  snprintf(log_dir, sizeof(log_dir), "%s/example", REGISTRY_ROOT);
  if (create_dir(log_dir, 1) != 0) {
    return -1;
  }
  published = create_obj(&obj_Q, get_id(), REGISTRY_ROOT "/example/clock", 0, sizeof(struct clock), 2);
  if (published == NULL) {
    return -1;
  }
  struct clock *data = (struct clock *)published->data;
  init_info(0, &published->desc[0], "exampleSeconds", sizeof(data->seconds), VAR_INTEGER,
            ACCESS_READ_ONLY, 1, &data->seconds, NULL);
  init_info(1, &published->desc[1], "exampleStarted", sizeof(data->started), VAR_DISPLAY_STRING,
            ACCESS_READ_ONLY, 1, data->started, NULL);
  start = time(NULL);
  strftime(data->started, sizeof(data->started), "%Y-%m-%d %H:%M:%S", localtime(&start));
  return log_data(published);
}

int get_data(void) {
  ((struct clock *)published->data)->seconds = (int32_t)(time(NULL) - start);
  const int result = log_data(published);
  alarm((unsigned)poll_time);
  return result;
}

int cleanup_agent(void) {
  delete_obj(&obj_Q, NULL, 0);
  return remove_all_dir(log_dir);
}

int main(int argc, char **argv) {
  return agent_main(argc, argv);
}
