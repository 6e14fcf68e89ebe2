#include "rclib/dshash.h"

#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "rclib/rc.h"
#include "rclib/rc_hmem.h"

namespace {

constexpr std::array<uint16_t, 256> make_crc16_table() {
  std::array<uint16_t, 256> table{};
  for (unsigned i = 0; i < 256; ++i) {
    unsigned crc = i;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? (crc >> 1) ^ 0xA001u : crc >> 1;
    table[i] = static_cast<uint16_t>(crc);
  }
  return table;
}

constexpr std::array<uint16_t, 256> kCrc16 = make_crc16_table();

constexpr unsigned crc16_of(const char* text) {
  unsigned h = 0;
  for (; *text; ++text) h = kCrc16[(static_cast<unsigned>(*text) ^ h) & 255] ^ (h >> 8);
  return h;
}

// The standard check value of this CRC proves the table at compile time.
static_assert(crc16_of("123456789") == 0xBB3D);

// Stands in for a deleted current cell at the head of its chain: its next
// is null, so ht_get_next moves on to the head of the chain after
// iter_chain, which ht_delete has stepped back by one.
HASH_CELL restart_marker{};

constexpr int kMaxChains = 1 << 24;

HASH_CELL** heads_of(HASH_TABLE* table) { return table->heads; }

bool known_hash_id(int hash_id) { return hash_id >= kHashSum && hash_id <= kHashFold; }

void report_unknown(int hash_id) { std::fprintf(stderr, "Unknown hash function id.  %d\n", hash_id); }

void clear_chains(HASH_TABLE* table) {
  HASH_CELL** heads = heads_of(table);
  for (int i = 0; i < table->chains; ++i) heads[i] = nullptr;
  table->items = 0;
  table->iter_chain = 0;
  table->iter_cell = nullptr;
}

void hand_out(const HASH_CELL* cell, char** key, long* int_val, void** ptr) {
  if (key) *key = cell->key;
  if (int_val) *int_val = cell->int_val;
  if (ptr) *ptr = cell->ptr;
}

}  // namespace

// Characters are taken as signed throughout, and every function but id 2
// leaves the key's first character out: keys of one table commonly share a
// first letter, which would only crowd the chains.
int ht_hash_symbol(const char* key, int hash_id, int chains, int* chain) {
  if (!chain) return RC_FAIL;
  *chain = 1;
  if (!key || chains < 1) return RC_FAIL;
  const signed char* text = reinterpret_cast<const signed char*>(key);
  const size_t length = std::strlen(key);
  const signed char* rest = length ? text + 1 : text;
  long long result = 1;
  switch (hash_id) {
    case kHashSum: {
      long long sum = 0;
      for (const signed char* c = rest; *c; ++c) sum += *c;
      result = sum % chains;
      break;
    }
    case kHashShift: {
      long long second = length > 1 ? text[1] : 0;
      long long last = length ? text[length - 1] : 0;
      result = (second * 256 + last + static_cast<long long>(length)) % chains;
      break;
    }
    case kHashCrc16: {
      unsigned h = 0;
      for (const signed char* c = rest; *c; ++c) h = kCrc16[(static_cast<unsigned>(*c) ^ h) & 255] ^ (h >> 8);
      result = (h & 0x7FFF) % chains;
      break;
    }
    case kHashFold: {
      // 32-bit wrap-around arithmetic; the result is taken at each step, so
      // a key with nothing after its first character keeps the default.
      uint32_t h = 0;
      for (const signed char* c = rest; *c; ++c) {
        h = static_cast<uint32_t>(static_cast<int32_t>(*c)) + h * 16;
        if (h & 0xF000) h = (h & 0x0FFF) ^ ((h & 0xF000) >> 12);
        result = (h & 0x7FFF) % static_cast<uint32_t>(chains);
      }
      break;
    }
    default:
      report_unknown(hash_id);
      return RC_FAIL;
  }
  if (chains == 1) {
    result = 0;  // a table of one chain has no chain 1 to default to
  } else if (result < 0 || result >= chains) {
    std::fprintf(stderr, "Bad chain_id for key '%s', setting id = 1. %d\n", key, static_cast<int>(result));
    result = 1;
  }
  *chain = static_cast<int>(result);
  if (rc_debug_bits & kRcDbgHashPut) std::printf("hash: key '%s' id %d chain %d\n", key, hash_id, *chain);
  return RC_OK;
}

int ht_create(int chains, int hash_id, int param, HASH_TABLE** table) {
  rc_debug_entry("ht_create");
  if (!table) return RC_FAIL;
  *table = nullptr;
  if (chains < 1 || chains > kMaxChains) return RC_FAIL;
  if (!known_hash_id(hash_id)) {
    report_unknown(hash_id);
    return RC_FAIL;
  }
  size_t size = offsetof(HASH_TABLE, heads) + static_cast<size_t>(chains) * sizeof(HASH_CELL*);
  if (size < sizeof(HASH_TABLE)) size = sizeof(HASH_TABLE);
  HASH_TABLE* fresh = static_cast<HASH_TABLE*>(RC_ALLOC(HASH_TABLE, size));
  if (!fresh) return RC_FAIL;
  fresh->chains = chains;
  if (ht_init(fresh, hash_id, param) != RC_OK) {
    RC_GIVE(HASH_TABLE, fresh);
    return RC_FAIL;
  }
  *table = fresh;
  return RC_OK;
}

int ht_init(HASH_TABLE* table, int hash_id, int param) {
  if (!table || table->chains < 1) return RC_FAIL;
  if (!known_hash_id(hash_id)) {
    report_unknown(hash_id);
    return RC_FAIL;
  }
  clear_chains(table);
  table->lookups = table->probes = table->misses = 0;
  table->hash_id = hash_id;
  table->param = param;
  return RC_OK;
}

int ht_put(HASH_TABLE* table, const char* key, long int_val, void* ptr) {
  if (!table || !key) return RC_FAIL;
  const size_t length = std::strlen(key);
  if (length > static_cast<size_t>(INT_MAX) - 1) return RC_FAIL;
  int chain = 1;
  if (ht_hash_symbol(key, table->hash_id, table->chains, &chain) != RC_OK) return RC_FAIL;
  HASH_CELL* cell = RC_NEW(HASH_CELL, HASH_CELL);
  if (!cell) return RC_FAIL;
  cell->key = static_cast<char*>(RC_ALLOC(ACHR, length + 1));
  if (!cell->key) {
    RC_GIVE(HASH_CELL, cell);
    return RC_FAIL;
  }
  std::memcpy(cell->key, key, length + 1);
  cell->key_len = static_cast<int>(length);
  cell->int_val = int_val;
  cell->ptr = ptr;
  HASH_CELL** heads = heads_of(table);
  cell->next = heads[chain];
  heads[chain] = cell;
  ++table->items;
  return RC_OK;
}

int ht_get(HASH_TABLE* table, const char* key, long* int_val, void** ptr) {
  if (!table || !key) return RC_FAIL;
  int chain = 1;
  if (ht_hash_symbol(key, table->hash_id, table->chains, &chain) != RC_OK) return RC_FAIL;
  ++table->lookups;
  const size_t length = std::strlen(key);
  int probes = 0;
  for (HASH_CELL* cell = heads_of(table)[chain]; cell; cell = cell->next) {
    ++probes;
    if (static_cast<size_t>(cell->key_len) == length && std::memcmp(cell->key, key, length) == 0) {
      table->probes += probes;
      if (rc_debug_bits & kRcDbgHashGet)
        std::printf("ht_get: key '%s' chain %d probes %d found\n", key, chain, probes);
      hand_out(cell, nullptr, int_val, ptr);
      return RC_OK;
    }
  }
  table->probes += probes;
  ++table->misses;
  if (rc_debug_bits & kRcDbgHashGet) std::printf("ht_get: key '%s' chain %d probes %d missed\n", key, chain, probes);
  return RC_FAIL;
}

int ht_delete(HASH_TABLE* table, const char* key, HASH_CELL** cell) {
  if (cell) *cell = nullptr;
  if (!table || !key) return RC_FAIL;
  int chain = 1;
  if (ht_hash_symbol(key, table->hash_id, table->chains, &chain) != RC_OK) return RC_FAIL;
  const size_t length = std::strlen(key);
  HASH_CELL** heads = heads_of(table);
  HASH_CELL* prev = nullptr;
  HASH_CELL* found = heads[chain];
  while (found && !(static_cast<size_t>(found->key_len) == length && std::memcmp(found->key, key, length) == 0)) {
    prev = found;
    found = found->next;
  }
  if (!found) return RC_OK;
  if (prev) {
    prev->next = found->next;
  } else {
    heads[chain] = found->next;
    --table->items;
  }
  found->next = nullptr;
  if (table->iter_cell == found) {
    if (prev) {
      table->iter_cell = prev;
    } else {
      table->iter_cell = &restart_marker;
      table->iter_chain = chain - 1;
    }
  }
  if (cell) *cell = found;
  else ht_free_cell(&found);
  return RC_OK;
}

void ht_free_cell(HASH_CELL** cell) {
  if (!cell || !*cell) return;
  RC_GIVE(ACHR, (*cell)->key);
  RC_GIVE(HASH_CELL, *cell);
}

int ht_free_body(HASH_TABLE* table) {
  rc_debug_entry("ht_free_body");
  if (!table) return RC_FAIL;
  HASH_CELL** heads = heads_of(table);
  for (int i = 0; i < table->chains; ++i) {
    HASH_CELL* cell = heads[i];
    while (cell) {
      HASH_CELL* next = cell->next;
      ht_free_cell(&cell);
      cell = next;
    }
  }
  clear_chains(table);
  return RC_OK;
}

int ht_destroy(HASH_TABLE** table) {
  if (!table) return RC_FAIL;
  if (!*table) return RC_OK;
  ht_free_body(*table);
  RC_GIVE(HASH_TABLE, *table);
  return RC_OK;
}

int ht_get_first(HASH_TABLE* table, char** key, long* int_val, void** ptr) {
  if (!table) return RC_FAIL;
  table->iter_chain = 0;
  table->iter_cell = nullptr;
  HASH_CELL** heads = heads_of(table);
  for (int chain = 0; chain < table->chains; ++chain) {
    if (heads[chain]) {
      table->iter_chain = chain;
      table->iter_cell = heads[chain];
      hand_out(heads[chain], key, int_val, ptr);
      return RC_OK;
    }
  }
  return RC_FAIL;
}

int ht_get_next(HASH_TABLE* table, char** key, long* int_val, void** ptr) {
  if (!table || !table->iter_cell) return RC_FAIL;
  HASH_CELL** heads = heads_of(table);
  HASH_CELL* cell = table->iter_cell->next;
  int chain = table->iter_chain;
  while (!cell && ++chain < table->chains) cell = heads[chain];
  if (!cell) {
    table->iter_chain = 0;
    table->iter_cell = nullptr;
    return RC_FAIL;
  }
  table->iter_chain = chain;
  table->iter_cell = cell;
  hand_out(cell, key, int_val, ptr);
  return RC_OK;
}
