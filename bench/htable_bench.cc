// The hash table against GLib's, with the same functions for hash and equality, keys and order.
// Names are group/implementation/number of entries.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <glib.h>

#include "lib/htable.h"

namespace
{

constexpr int operations_min = 2000; // in one measurement, so that reading the clock does not count

// Keys like names of headers: hashing and comparing them is most of the work.
struct text {
	std::string characters;

	explicit text(int64_t number) : characters("X-Name-" + std::to_string(number)) {}
	const void *key() const { return characters.c_str(); }
	static uint32_t hash(const void *key) { return fnv_32_str(static_cast<const char *>(key), 0); }
	static int equal(const void *stored, const void *key)
	{
		return strcmp(static_cast<const char *>(stored), static_cast<const char *>(key)) == 0;
	}
};

// Keys that are numbers: they show the work of the table itself.
struct number {
	uint32_t value;

	explicit number(int64_t from) : value(static_cast<uint32_t>(from)) {}
	const void *key() const { return &value; }
	static uint32_t hash(const void *key) { return fnv_32_buf(key, sizeof(value), 0); }
	static int equal(const void *stored, const void *key)
	{
		return *static_cast<const uint32_t *>(stored) == *static_cast<const uint32_t *>(key);
	}
};

// `stored` and `asked` are equal, in different memory and in different orders.
template <typename Key>
struct keys {
	std::vector<Key> stored, asked;

	explicit keys(int64_t count)
	{
		for (int64_t i = 0; i < count; i++)
			stored.push_back(Key(i * 7919 % 1000003));
		asked = stored;
		std::shuffle(asked.begin(), asked.end(), std::mt19937(1));
	}
};

template <typename Key>
struct apbase_table {
	static constexpr char name[] = "apbase";
	using key_type = Key;
	htable *table = htable_new(Key::hash, Key::equal);
	apbase_table() = default;
	apbase_table(const apbase_table &) = delete;
	~apbase_table() { htable_unref(table); }

	void insert(const void *key, void *value) { htable_insert(table, const_cast<void *>(key), value); }
	void *lookup(const void *key) { return htable_lookup(table, key); }
	void remove(const void *key) { htable_remove(table, key); }
};

template <typename Key>
struct glib_table {
	static constexpr char name[] = "GHashTable";
	using key_type = Key;
	GHashTable *table = g_hash_table_new(Key::hash, Key::equal);
	glib_table() = default;
	glib_table(const glib_table &) = delete;
	~glib_table() { g_hash_table_unref(table); }

	void insert(const void *key, void *value)
	{
		g_hash_table_insert(table, const_cast<void *>(key), value);
	}
	void *lookup(const void *key) { return g_hash_table_lookup(table, key); }
	void remove(const void *key) { g_hash_table_remove(table, key); }
};

// The value is not the key, so the table is a map.
int value_of_all;

template <typename Table>
void insert_all(Table &table, const keys<typename Table::key_type> &all)
{
	for (const auto &key : all.stored)
		table.insert(key.key(), &value_of_all);
}

template <typename Table>
void look_up_all(Table &table, const keys<typename Table::key_type> &all)
{
	for (const auto &key : all.asked) {
		if (table.lookup(key.key()) != &value_of_all)
			abort();
	}
}

template <typename Table>
void remove_all(Table &table, const keys<typename Table::key_type> &all)
{
	for (const auto &key : all.asked)
		table.remove(key.key());
}

double cpu_seconds()
{
	timespec now;
	clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
	return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Measures `work` on many tables at once, so that the clock is read rarely. Making and freeing them is not measured.
template <typename Table, auto work>
void measured(benchmark::State &state)
{
	keys<typename Table::key_type> all(state.range(0));
	int64_t table_count = std::max<int64_t>(1, operations_min / state.range(0));
	for (auto _ : state) {
		std::vector<Table> tables(static_cast<size_t>(table_count));
		if (work != insert_all<Table>) {
			for (Table &table : tables)
				insert_all(table, all);
		}
		double start = cpu_seconds();
		for (Table &table : tables)
			work(table, all);
		state.SetIterationTime(cpu_seconds() - start);
	}
	state.SetItemsProcessed(state.iterations() * table_count * state.range(0));
}

template <typename Table, auto work>
void add(const std::string &group, int count)
{
	std::string name = group + "/" + Table::name;
	benchmark::RegisterBenchmark(name.c_str(), measured<Table, work>)->Arg(count)->UseManualTime();
}

template <typename Ours, typename Theirs>
void add_groups(const std::string &kind)
{
	for (int count : {10, 100, 1000, 10000}) {
		add<Ours, look_up_all<Ours>>("hits, " + kind, count);
		add<Theirs, look_up_all<Theirs>>("hits, " + kind, count);
		add<Ours, remove_all<Ours>>("deletions, " + kind, count);
		add<Theirs, remove_all<Theirs>>("deletions, " + kind, count);
		add<Ours, insert_all<Ours>>("insertions, " + kind, count);
		add<Theirs, insert_all<Theirs>>("insertions, " + kind, count);
	}
}

} // namespace

// The implementations take turns, size by size, so that all meet the same state of the machine.
int main(int argc, char **argv)
{
	benchmark::Initialize(&argc, argv);
	add_groups<apbase_table<text>, glib_table<text>>("texts");
	add_groups<apbase_table<number>, glib_table<number>>("numbers");
	benchmark::RunSpecifiedBenchmarks();
}
