// Chained hash tables keyed by strings, each cell carrying two opaque words.
//
// Puts do not check for duplicates: the newest cell of a key sits at the
// head of its chain and shadows older ones until it is deleted. The item
// count is an upper bound (a delete lowers it only when the removed cell was
// its chain's head); nothing may depend on it being exact.
#pragma once

struct HASH_CELL {
  char* key;  // private copy, owned by the cell
  int key_len;
  HASH_CELL* next;
  long int_val;  // two words for the caller; the table owns neither
  void* ptr;
};

struct HASH_TABLE {
  int chains;  // fixed at creation
  int items;
  long lookups;
  long probes;  // cells compared by ht_get
  long misses;
  int hash_id;
  int param;  // kept, not consulted
  int iter_chain;
  HASH_CELL* iter_cell;
  HASH_CELL* heads[1];  // chain heads follow in the same allocation
};

// Hash function ids of ht_hash_symbol.
constexpr int kHashSum = 1;
constexpr int kHashShift = 2;
constexpr int kHashCrc16 = 3;
constexpr int kHashFold = 4;  // used by the option store and the editor's command table

// Header and `chains` heads in one block. RC_FAIL for fewer than one chain,
// an unknown hash id, or no memory.
int ht_create(int chains, int hash_id, int param, HASH_TABLE** table);
// Empties the chains and zeroes the counters without releasing any cell:
// for a table whose cells are owned elsewhere, or a fresh block.
int ht_init(HASH_TABLE* table, int hash_id, int param);
// New cell at the head of the key's chain with a private copy of the key.
int ht_put(HASH_TABLE* table, const char* key, long int_val, void* ptr);
// Newest cell of `key`; each output may be null and is left untouched on
// RC_FAIL.
int ht_get(HASH_TABLE* table, const char* key, long* int_val, void** ptr);
// Unlinks the newest cell of `key` and hands it over in *cell (null if the
// key is absent; RC_OK either way). The caller releases it with
// ht_free_cell. With a null `cell` the removed cell is released here.
int ht_delete(HASH_TABLE* table, const char* key, HASH_CELL** cell);
// Releases every cell and key; the table stays usable.
int ht_free_body(HASH_TABLE* table);
// Iteration in chain order. The key handed out is the table's own copy.
// Each output may be null. Deleting the current cell with ht_delete during
// an iteration is allowed: the next call goes on with the cell after it.
// ht_get_next at the end answers RC_FAIL and resets iter_chain to 0.
int ht_get_first(HASH_TABLE* table, char** key, long* int_val, void** ptr);
int ht_get_next(HASH_TABLE* table, char** key, long* int_val, void** ptr);
// Chain of `key` under `hash_id`: see dshash.cc for the functions.
int ht_hash_symbol(const char* key, int hash_id, int chains, int* chain);
// Releases a cell handed out by ht_delete, with its key; nulls the pointer.
void ht_free_cell(HASH_CELL** cell);
// ht_free_body and the table itself; nulls the pointer; a null table is RC_OK.
int ht_destroy(HASH_TABLE** table);
