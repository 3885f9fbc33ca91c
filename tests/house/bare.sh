#!/bin/bash
# Run by scripts/bare as root of a bare Debian: runs every code block of README.md as it stands, and checks what comes of
# it. The blocks are files in $blocks; a block of commands is named by its first line, a comment.
set -euo pipefail

blocks=/usr/src/readme
sources=/usr/src/apbase # only copied from: what is installed must need no clone
user=maker
home=/home/$user
clone=$home/apbase
work=$home/work

fail()
{
	printf 'bare: %s\n' "$*" >&2
	exit 1
}

say()
{
	printf '    %3d s  %s\n' $SECONDS "$*"
}

# as <user> <command>...: in the environment of a login.
as()
{
	local who=$1
	shift
	setpriv --reuid "$who" --regid "$who" --init-groups --reset-env "$@"
}

# try <what> <command>...: shows what the command printed if it fails.
try()
{
	local what=$1
	shift
	"$@" >/tmp/log 2>&1 </dev/null || { cat /tmp/log >&2; fail "$what"; }
}

# ---- Blocks of README.md ----

# find_block <name>: its file.
find_block()
{
	grep -lxF -- "# $1" $blocks/*.sh || fail "README.md has no block '$1'"
}

# block <user> <folder> <name>: runs it, and leaves what it printed in /tmp/log.
block()
{
	local file
	file=$(find_block "$3")
	touch "$file.done"
	cd "$2"
	try "README.md's block '$3' fails" as "$1" bash -e "$file"
	cd /
}

# start <user> <folder> <command>...: runs until `stop`, in a group of its own.
start()
{
	set -m
	(cd "$2" && exec setpriv --reuid "$1" --regid "$1" --init-groups --reset-env "${@:3}") >/tmp/started 2>&1 </dev/null &
	started=$!
	set +m
}

# start_block <user> <folder> <name>
start_block()
{
	local file
	file=$(find_block "$3")
	touch "$file.done"
	start "$1" "$2" bash -e "$file"
}

stop()
{
	kill -KILL -- -$1 # libubus keeps a daemon from ending at SIGTERM, unless it watches for that itself
	wait $1 2>/dev/null || true
}

# wait_for <command>...: until it succeeds, or what was started last has ended.
wait_for()
{
	until "$@" 2>/dev/null; do
		kill -0 $started 2>/dev/null || { cat /tmp/started >&2; fail "it has ended before this is so: $*"; }
		sleep 0.05
	done
}

every_block_was_run()
{
	local file
	for file in $blocks/*.sh; do
		[ -e "$file.done" ] || fail "README.md's block '$(head -n 1 "$file")' is not run: tests/house/bare.sh should"
	done
}

# ---- What must work with an installed copy ----

accepts()
{
	(exec 3<>"/dev/tcp/127.0.0.1/$1")
}

# check_hello: the one that has been started answers, and another one finds its port busy.
check_hello()
{
	local second
	wait_for accepts 8080
	block $user $work "in another terminal: ask it"
	grep -qx "Hello from an access point" /tmp/log || fail "hello answers: $(cat /tmp/log)"
	! second=$(as $user $1 2>&1) || fail "a second hello shares the port"
	[ "$second" = "hello: unable to listen at port 8080: Address already in use" ] || fail "a second hello says: $second"
	stop $started
}

# hello_of_block <name>: README.md's lines that build hello and start it.
hello_of_block()
{
	rm -f $work/hello
	start_block $user $work "$1"
	check_hello $work/hello
}

# hello_of_cmake [option]...: as README.md's lines, with an option more.
hello_of_cmake()
{
	rm -rf $work/build
	try "the CMake project does not build" as $user bash -e -c 'cd ~/work; cmake -G Ninja -B build "$@"; cmake --build build' \
		- "$@"
	start $user $work build/hello
	check_hello $work/build/hello
}

bus_has()
{
	"$1/ubus" -s /tmp/bus list "$2" >/tmp/log
}

# check_daemon <folder of the bus's programs> <daemon>: it joins the bus that was started last, is called, and answers.
# $bus is then the one, $started the other.
check_daemon()
{
	local answer
	wait_for test -S /tmp/bus
	bus=$started
	start root $work "$2" /tmp/bus
	wait_for bus_has "$1" hello
	answer=$("$1/ubus" -s /tmp/bus call hello say | tr -d '[:space:]')
	[ "$answer" = '{"text":"hello"}' ] || fail "the daemon answers: $answer"
}

# ---- The story ----

say "Installing what the build needs"
block root /root "as root: what the build needs, and curl"
useradd --create-home --user-group $user
cp -r $sources $clone
mkdir $work
cp $blocks/*.c $work/hello.c
cp $blocks/*.cmake $work/CMakeLists.txt
cp $sources/tests/house/consumer/daemon.c $work
chown -R $user: $home

say "Building"
block $user $clone "in the clone: build the library and the examples, without the tests"

say "Using a copy in the user's home"
block $user $clone "in the clone: install in a folder of your own"
hello_of_block "beside hello.c: build it with that copy, and start it"
hello_of_cmake -DCMAKE_PREFIX_PATH=$home/.local

say "Using a copy that was built with a message bus in a folder of its own"
try "the library does not build with a bus that lies anywhere" as $user bash -e -c '
	cd ~/apbase
	bus=~/.local/lib/apbase
	cmake --preset release -B build/system -DAPBASE_TESTS=OFF -DAPBASE_EXAMPLES=OFF -DAPBASE_BUS=system \
		-DCMAKE_LIBRARY_PATH=$bus -DCMAKE_INCLUDE_PATH=$bus/include
	cmake --build build/system
	cmake --install build/system --prefix ~/other'
[ ! -e $home/other/lib/apbase ] || fail "the stand-in is installed although it is not used"
try "a daemon does not build with a bus that lies anywhere" as $user bash -e -c '
	cd ~/work
	export PKG_CONFIG_PATH=~/other/lib/pkgconfig
	cc -std=c11 -o other $(pkg-config --cflags apbase apbase-bus jansson) daemon.c \
		$(pkg-config --libs apbase apbase-bus jansson) -Wl,-rpath,$(pkg-config --variable=libdir apbase)'
start root / $home/.local/lib/apbase/ubusd -s /tmp/bus
check_daemon $home/.local/lib/apbase $work/other
stop $started
stop $bus
rm -f /tmp/bus

say "Using a copy in /usr/local, with the clone gone"
block root $clone "as root, in the clone: install in /usr/local, and tell the dynamic linker"
rm -rf $clone $home/.local $home/other
hello_of_block "beside hello.c: build it, and start it"
block $user $work "beside hello.c: build it as C++"
start $user $work ./hello
check_hello $work/hello
rm -r $work/build
block $user $work "beside CMakeLists.txt: build with the copy in /usr/local"
start $user $work build/hello
check_hello $work/build/hello

say "Joining the message bus"
block $user $work "beside daemon.c: build it"
start_block root / "as root: start a bus, on which only root may add objects"
check_daemon /usr/local/lib/apbase $work/daemon
block root / "as root, in another terminal: see who is there"
grep -qx hello /tmp/log || fail "the bus has: $(cat /tmp/log)"
stop $started
stop $bus

say "With the library inside of another project"
find /usr/local ! -type d -delete
ldconfig
cp -r $sources $work/apbase
chown -R $user: $work/apbase
sed -i 's/find_package(apbase REQUIRED)/add_subdirectory(apbase)/' $work/CMakeLists.txt
hello_of_cmake

# The first block goes on to the whole suite, which runs elsewhere, and its demonstration until Ctrl-C.
say "Running the demonstration"
block=$(find_block "as root, or with sudo")
grep -q '^scripts/demo ' "$block" || fail "README.md's first block does not start the demonstration"
cd $work/apbase
try "scripts/demo fails" scripts/demo --once
touch "$block.done"

every_block_was_run
say "Done"
