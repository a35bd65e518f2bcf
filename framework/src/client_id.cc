#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstddef>

#include "dtl_logger.h"
#include "dtl_source.h"

static_assert(sizeof(dtl_client_id_t) == 66);
static_assert(offsetof(dtl_client_id_t, host_name) == 0);
static_assert(offsetof(dtl_client_id_t, port) == 64);

extern "C" {

char* dtl_get_hostname(char* buffer, size_t size) {
  if (buffer == nullptr || size == 0) return nullptr;
  // Deliberately no unprefixed fallback: HOST_NAME is too common a name.
  if (const char* name = getenv("DTL_HOST_NAME"); name != nullptr) {
    size_t length = strnlen(name, size - 1);
    memcpy(buffer, name, length);
    buffer[length] = '\0';
    return buffer;
  }
  buffer[size - 1] = '\0';
  if (gethostname(buffer, size - 1) != 0) return nullptr;
  // gethostname need not terminate a truncated name.
  buffer[size - 1] = '\0';
  if (char* dot = strchr(buffer, '.'); dot != nullptr) *dot = '\0';
  return buffer;
}

dtl_client_id_t* dtl_client_id_allocate(void) {
  auto* client_id = static_cast<dtl_client_id_t*>(calloc(1, sizeof(dtl_client_id_t)));
  if (client_id == nullptr) {
    DTL_LOG_ERROR("[source] Failed to allocate client identifier");
    return nullptr;
  }
  if (dtl_get_hostname(client_id->host_name, sizeof client_id->host_name) == nullptr) {
    DTL_LOG_ERROR("[source] Failed to get host name: %s", strerror(errno));
    free(client_id);
    return nullptr;
  }
  return client_id;
}

dtl_client_id_t* dtl_client_id_copy(dtl_client_id_t* destination, const dtl_client_id_t* source) {
  if (destination != nullptr && source != nullptr)
    memcpy(destination, source, sizeof(dtl_client_id_t));
  return destination;
}

dtl_client_id_t* dtl_client_id_print(dtl_client_id_t* client_id) { return client_id; }

void dtl_client_id_print_struct_layout(void) {
  printf("Client identifier dtl_client_id_t\n");
  printf("\n");
  printf("Field                 Offset    Size\n");
  printf(" %-19s  %-8lu  %-lu\n", "host_name",
         static_cast<unsigned long>(offsetof(dtl_client_id_t, host_name)),
         static_cast<unsigned long>(sizeof(dtl_client_id_t::host_name)));
  printf(" %-19s  %-8lu  %-lu\n", "port",
         static_cast<unsigned long>(offsetof(dtl_client_id_t, port)),
         static_cast<unsigned long>(sizeof(dtl_client_id_t::port)));
}

}  // extern "C"
