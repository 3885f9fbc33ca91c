# Sourced by the other scripts: the packages of each, and how they report to whoever runs them.

packages_build="g++ cmake ninja-build pkg-config libjansson-dev libnftnl-dev libmnl-dev libmbedtls-dev"
packages_demo="$packages_build curl nftables iproute2 busybox-static"
packages_test="$packages_build libgtest-dev libgmock-dev make autoconf automake libtool dpkg-dev ca-certificates git curl
	python3 libjson-c-dev clang-14 clang-format-14 clang-tidy-14 musl-dev valgrind g++-mips-linux-gnu
	g++-mipsel-linux-gnu nftables iproute2 busybox-static chromium chromium-driver haproxy nginx-light nodejs openssl"
packages_target="qemu-user qemu-system-mips curl wrk python3"
packages_bench="$packages_build python3 libbenchmark-dev libevent-dev libglib2.0-dev nginx-light wrk valgrind strace
	nftables"

script_name=scripts/$(basename "$0")
log_folder=build/logs

# One line that says why this ends here.
die()
{
	printf '%s: %s\n' "$script_name" "$*" >&2
	exit 1
}

# The command line is wrong.
usage_error()
{
	printf '%s: %s, see %s --help\n' "$script_name" "$*" "$script_name" >&2
	exit 2
}

# answer <argument>...: prints the help, which is the comment at the top of the script and what its function more_help
# adds, or the version, and ends here, if one of the arguments asks for it.
answer()
{
	local word
	for word; do
		case $word in
		-h | --help)
			sed -n '1d; /^#/!q; s/^# \{0,1\}//p' "$script_name"
			! declare -F more_help >/dev/null || more_help
			exit 0
			;;
		--version)
			sed -nE "s,^project\(apbase VERSION ([0-9.]+) .*,$script_name \1,p" CMakeLists.txt
			exit 0
			;;
		esac
	done
}

# A step begins.
say()
{
	printf '==> %s\n' "$*"
}

# quietly <log name> <command>...: runs a step whose output matters only if it fails.
quietly()
{
	local log=$log_folder/$1.log status
	shift
	mkdir -p "$log_folder"
	set +e # a condition would have a function go on after a failure
	(set -e; "$@") </dev/null >"$log" 2>&1
	status=$?
	set -e
	if [ $status -ne 0 ]; then
		tail -n 40 "$log" >&2
		die "failed: $* (all of its output: $log)"
	fi
}

# install_packages <package>...: from Debian, those that are not there yet.
install_packages()
{
	local package missing=() as_root=()

	command -v dpkg-query >/dev/null && command -v apt-get >/dev/null ||
		die "this needs Debian 12 (dpkg-query or apt-get not found)"
	for package; do
		[ "$(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null)" = installed ] ||
			missing+=("$package")
	done
	[ ${#missing[@]} -gt 0 ] || return 0
	if [ "$(id -u)" -ne 0 ]; then
		command -v sudo >/dev/null ||
			die "run it as root, or install sudo: ${missing[*]} must be installed first"
		as_root=(sudo)
	fi
	say "Installing from Debian: ${missing[*]}"
	"${as_root[@]}" apt-get update -q </dev/null || die "apt-get update failed"
	"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -q -y --no-install-recommends \
		-o Dpkg::Use-Pty=0 "${missing[@]}" </dev/null || die "apt-get could not install ${missing[*]}"
}

# build_preset <preset> <folder> <targets> [cmake option]...: configures, and builds with progress shown.
build_preset()
{
	local preset=$1 folder=$2 targets=$3
	shift 3
	say "Configuring $folder"
	quietly "configure-$preset" cmake --preset "$preset" -B "$folder" "$@"
	say "Building $folder"
	cmake --build "$folder" --target $targets </dev/null || die "$folder does not build"
}
