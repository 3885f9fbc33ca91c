// Invariants: what holds unless this library has a mistake, or somebody writes over its memory. They are checked in
// every build. Peers, files, the kernel and the arguments of callers break none of them.
#pragma once

// Reports the place at LOG_ERR and aborts. Two arguments cost the target less than log_assert's three texts.
[[noreturn, gnu::cold]] void invariant_failure(const char *file, int line);

// Aborts unless `holds`. The log names the line, and the line says what held.
[[gnu::always_inline]] inline void invariant(
	bool holds, const char *file = __builtin_FILE(), int line = __builtin_LINE())
{
	if (!holds)
		invariant_failure(file, line);
}
