/* Shows the table of hosts that a VXLAN agent keeps in shared memory, in C: one host, or all and what changes since.
 *
 *   show-hosts NAME MAC VLAN      looks one up; exit code 1 when it is not there
 *   show-hosts NAME               all hosts, then the changes until standard input ends: one look for each line of it
 */
#include <vxlan_hosts.h>

#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void print(const char *mark, const vxlan_host *host) {
  const uint8_t *m = host->mac;
  printf("%s %02x:%02x:%02x:%02x:%02x:%02x:%u", mark, m[0], m[1], m[2], m[3], m[4], m[5], (unsigned)host->vlan);
  if (host->vtep[0].family == VXLAN_HOSTS_IPV4) {
    const uint8_t *a = host->vtep[0].bytes;
    printf(" behind %u.%u.%u.%u", a[0], a[1], a[2], a[3]);
  }
  printf("\n");
}

static int told(void *context, int event, const vxlan_host *host) {
  (void)context;
  switch (event) {
    case VXLAN_HOSTS_BEGIN:
      printf("= all hosts:\n");
      break;
    case VXLAN_HOSTS_IS:
      print("+", host);
      break;
    case VXLAN_HOSTS_GONE:
      print("-", host);
      break;
    default: /* of a later version */
      break;
  }
  return 0;
}

static int look_up(vxlan_hosts *hosts, const char *text, const char *vlan) {
  unsigned m[6];
  if (sscanf(text, "%2x:%2x:%2x:%2x:%2x:%2x", &m[0], &m[1], &m[2], &m[3], &m[4], &m[5]) != 6) {
    fprintf(stderr, "show-hosts: \"%s\" is no MAC address\n", text);
    return 2;
  }
  uint8_t mac[6];
  for (int i = 0; i < 6; ++i) {
    mac[i] = (uint8_t)m[i];
  }
  vxlan_host host;
  memset(&host, 0, sizeof host);
  host.size = sizeof host;
  const int found = vxlan_hosts_lookup(hosts, mac, (uint16_t)atoi(vlan), &host);
  if (found < 0) {
    fprintf(stderr, "show-hosts: %s\n", vxlan_hosts_error());
    return 2;
  }
  if (found == 1) {
    print("+", &host);
  }
  return found == 1 ? 0 : 1;
}

static int follow(vxlan_hosts *hosts) {
  vxlan_hosts_cursor cursor;
  memset(&cursor, 0, sizeof cursor);
  char line[80];
  do {
    const int64_t calls = vxlan_hosts_changes(hosts, &cursor, told, NULL);
    if (calls < 0) {
      fprintf(stderr, "show-hosts: %s\n", vxlan_hosts_error());
      return 2;
    }
    printf("%" PRId64 " told\n", calls);
    fflush(stdout);
  } while (fgets(line, sizeof line, stdin) != NULL);
  return 0;
}

int main(int argc, char **argv) {
  if (argc != 2 && argc != 4) {
    fprintf(stderr, "usage: show-hosts NAME [MAC VLAN]\n");
    return 2;
  }
  vxlan_hosts *hosts;
  if (vxlan_hosts_open(argv[1], NULL, &hosts) != 0) {
    fprintf(stderr, "show-hosts: %s\n", vxlan_hosts_error());
    return 2;
  }
  const int result = argc == 4 ? look_up(hosts, argv[2], argv[3]) : follow(hosts);
  vxlan_hosts_close(hosts);
  return result;
}
