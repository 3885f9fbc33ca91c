// The byte buffer: pieces appended, and all consumed at once or piece by piece, against libevent's buffer.
// Names are group/implementation/number of pieces.
#include <benchmark/benchmark.h>
#include <event2/buffer.h>

#include "lib/buffer.h"

namespace
{

constexpr int32_t piece_bytes = 200;
const char piece[piece_bytes] = {};

struct apbase_buffer {
	buffer *bytes = buffer_new();
	apbase_buffer() = default;
	apbase_buffer(const apbase_buffer &) = delete;
	~apbase_buffer() { buffer_free(bytes); }

	void append() { buffer_write(bytes, piece, piece_bytes); }
	void consume(int64_t count) { buffer_consume(bytes, static_cast<int32_t>(count)); }
};

struct libevent_buffer {
	evbuffer *bytes = evbuffer_new();
	libevent_buffer() = default;
	libevent_buffer(const libevent_buffer &) = delete;
	~libevent_buffer() { evbuffer_free(bytes); }

	void append() { evbuffer_add(bytes, piece, piece_bytes); }
	void consume(int64_t count) { evbuffer_drain(bytes, static_cast<size_t>(count)); }
};

template <typename Buffer>
void in_one(benchmark::State &state)
{
	Buffer buffer;
	for (auto _ : state) {
		for (int64_t i = 0; i < state.range(0); i++)
			buffer.append();
		buffer.consume(state.range(0) * piece_bytes);
	}
	state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Buffer>
void by_piece(benchmark::State &state)
{
	Buffer buffer;
	for (auto _ : state) {
		for (int64_t i = 0; i < state.range(0); i++)
			buffer.append();
		for (int64_t i = 0; i < state.range(0); i++)
			buffer.consume(piece_bytes);
	}
	state.SetItemsProcessed(state.iterations() * state.range(0));
}

} // namespace

// The implementations take turns, size by size, so that all meet the same state of the machine.
int main(int argc, char **argv)
{
	benchmark::Initialize(&argc, argv);
	for (int count : {1, 16, 256}) {
		auto add = [=](const char *name, void (*run)(benchmark::State &)) {
			benchmark::RegisterBenchmark(name, run)->Arg(count);
		};
		add("append, consume all/apbase", in_one<apbase_buffer>);
		add("append, consume all/libevent", in_one<libevent_buffer>);
		add("append, consume by piece/apbase", by_piece<apbase_buffer>);
		add("append, consume by piece/libevent", by_piece<libevent_buffer>);
	}
	benchmark::RunSpecifiedBenchmarks();
}
