/* Around the fragments of docs/embedding.md: what they include beside the library, and a runtime that uses each once. */
#define _DEFAULT_SOURCE
#include <setjmp.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

/* the fragments */

static uint64_t used(int account) {
  ox_pliv_account_usage_buffer_t usage;
  const uint64_t size = sizeof usage;
  must(ox_pmem_get_account_usage_pliv(0, &usage, &size) == 0, "reading the accounts");
  return usage.accounts[account].used_bytes;
}

int main(void) {
  bring_up();
  create_accounts();
  create_zones();
  create_space();
  commit_initial_pages();
  must(ox_pmem_is_funded_pliv(0) == 1, "an initial page without memory");

  char* const object = take(PAGE, HEAP);
  must(object != NULL, "a page of the heap");
  strcpy(object, "moved");
  must(strcmp(same_byte(object, MUTATORS, COLLECTOR), "moved") == 0, "seeing the page at the other view");
  char* const copy = evacuate(object);
  must(strcmp(copy, "moved") == 0, "finding the copy");
  must(used(RESERVE) == 0 && used(HEAP) == PAGE, "crediting the reserve first");

  char* const large = take(32 * MIB, HEAP);
  must(large != NULL, "a block as large as the cache takes");
  keep_for_later(large, 32 * MIB);
  must(take(32 * MIB, HEAP) == large, "the cache handing out the same block");
  give_back(large, 32 * MIB);

  must(grow(64 * MIB) == 32, "growing by 32 pages");
  must(shrink(64 * MIB) == 32, "shrinking by as much");
  must(grow(64 * MIB) == 32, "growing again");
  use_a_fixed_address();
  watch();
  must(ox_pmem_uncommit_all_memory_pliv() == 0, "the end");
  return 0;
}
