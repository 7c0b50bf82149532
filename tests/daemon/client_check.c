/* The client API from plain C99: a commit, a refused transaction that names its
 * failing operation, a load as JSON text, and a raw status request.
 * Usage: client_check SOCKET; prints the revisions, exits 0 when all held. */
#include <gikraidrum/client.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#define CHECK(cond)                                           \
  do {                                                        \
    if (!(cond)) {                                            \
      fprintf(stderr, "client_check:%d: %s\n", __LINE__, #cond); \
      return 1;                                               \
    }                                                         \
  } while (0)

int main(int argc, char **argv) {
  gk_client *c;
  gk_txn *t;
  uint64_t first = 0, second = 0, third = 0;
  char *answer = NULL;
  CHECK(argc == 2);
  c = gk_client_open(argv[1]);
  CHECK(c != NULL);
  t = gk_txn_new();
  CHECK(t != NULL);
  CHECK(gk_txn_set_text(t, NULL, "system", "hostname", "from-c") == 0);
  CHECK(gk_txn_set_uint(t, "global", "interface[7]", "mtu", 1400) == 0);
  CHECK(gk_txn_set_text(t, NULL, "interface[7]", "name", "eth7") == 0);
  CHECK(gk_txn_comment(t, "first") == 0);
  CHECK(gk_client_commit(c, t, &first) == 0 && first > 0);
  gk_txn_free(t);

  t = gk_txn_new();
  CHECK(gk_txn_domain_add(t, "east", 7) == 0);
  CHECK(gk_txn_delete(t, NULL, "interface[7]") == 0);
  CHECK(gk_txn_set_text(t, NULL, "interface[8]", "no_such_attribute", "1") == 0);
  CHECK(gk_client_commit(c, t, &second) == 1);
  CHECK(gk_client_error_index(c) == 2 && strcmp(gk_client_error_path(c), "interface[8]") == 0);
  CHECK(strstr(gk_client_error(c), "no_such_attribute") != NULL);
  gk_txn_free(t);

  CHECK(gk_client_commit_json(c, "[{\"op\": \"load\", \"merge\": true, \"config\": {\"global\": "
                                 "{\"dns\": {\"primary\": \"192.0.2.1\"}}}}]", NULL, &third) == 0);
  CHECK(third == first + 1);
  CHECK(gk_client_commit_json(c, "not json", NULL, &third) == -1);
  CHECK(gk_client_request(c, "{\"request\": \"status\"}", &answer) == 0);
  CHECK(strstr(answer, "\"ok\":true") != NULL);
  free(answer);
  gk_client_close(c);
  printf("%llu %llu\n", (unsigned long long)first, (unsigned long long)third);
  return 0;
}
