// A C function whose calls a test can replace, or watch on their way. The test program defines the function itself, so
// that its definition comes before the library's for everybody, the library under test included; the definition calls
// an `interposed`, which passes each call on while no hook is set.
#pragma once
#include <dlfcn.h>

#include <functional>
#include <utility>

template <typename F>
class interposed;

template <typename R, typename... A>
class interposed<R(A...)>
{
	using hook = std::function<R(A...)>;

	const char *name_;
	R (*next_)(A...) = nullptr;
	const hook *hook_ = nullptr; // null: calls pass through

public:
	// Constant: the function is called before any constructor has run.
	constexpr explicit interposed(const char *name) : name_(name) {}
	interposed(const interposed &) = delete;
	interposed &operator=(const interposed &) = delete;

	// A hook, for as long as this lives; then the one before it. A call that the hook makes comes to the hook again,
	// unless it is made by `next`.
	class replacement
	{
		interposed &of_;
		const hook own_;
		const hook *before_;

	public:
		replacement(interposed &of, hook own)
			: of_(of), own_(std::move(own)), before_(std::exchange(of.hook_, &own_))
		{
		}
		replacement(const replacement &) = delete;
		replacement &operator=(const replacement &) = delete;
		~replacement() { of_.hook_ = before_; }
	};
	[[nodiscard]] replacement replace(hook own) { return {*this, std::move(own)}; }

	// The library's definition, or a sanitizer's, which passes on to it.
	R next(A... arguments)
	{
		if (!next_)
			next_ = reinterpret_cast<R (*)(A...)>(dlsym(RTLD_NEXT, name_));
		return next_(arguments...);
	}

	// The test program's definition is this call.
	R operator()(A... arguments) { return hook_ ? (*hook_)(arguments...) : next(arguments...); }
};
