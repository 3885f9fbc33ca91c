// Processes, the console, and checks of JSON and hex. Processes are found in /proc, where an entry may vanish between
// two reads; one that does is skipped.

#include "utils.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include "internal/owned.h"
#include "log.h"

using owned_directory = owned<DIR *, nullptr, quietly<DIR *, closedir>>;

// ---- Programs ----

[[noreturn]] static void become(const char *path, char *const argv[], int quiet)
{
	if (quiet)
		close(STDERR_FILENO);
	if (execv(path, argv) == -1)
		_log(LOG_ERR, "execute: execv: %s\n", strerror(errno));
	else
		_log(LOG_ERR, "execute: execv failed");
	_exit(1); // not exit: the parent writes what stdio has buffered
}

int execute(const char *path, char *const argv[], int quiet)
{
	pid_t pid = fork();
	if (pid < 0)
		return -errno;
	if (pid == 0)
		become(path, argv, quiet);
	int status;
	while (waitpid(pid, &status, 0) < 0)
		if (errno != EINTR)
			return -errno;
	return status;
}

// ---- Processes ----

// The process of an entry of /proc, or 0. Numbers below 1 are refused: to kill they mean groups of processes.
static pid_t pid_of(const char *name)
{
	char *end;
	errno = 0;
	long number = strtol(name, &end, 10);
	if (end == name || *end != '\0' || errno == ERANGE || number < 1 || number > INT_MAX)
		return 0;
	return static_cast<pid_t>(number);
}

// Whether the file can be read and describes process `pid`, a child of `parent`.
static bool is_child(const char *stat_path, pid_t pid, pid_t parent)
{
	owned_file file{fopen(stat_path, "re")};
	int read_pid, read_parent;
	if (!file.ok() || fscanf(file.get(), "%d %*s %*c %d", &read_pid, &read_parent) != 2)
		return false;
	return read_pid == pid && read_parent == parent;
}

static bool is_directory(const char *path)
{
	struct stat about;
	if (lstat(path, &about) == 0)
		return S_ISDIR(about.st_mode);
	_log(LOG_ERR, "error stat %s: err=-%d\n", path, errno);
	return false;
}

static bool is_child_entry(const char *name, pid_t pid, pid_t parent)
{
	static constexpr char STAT[] = "/stat";
	char path[sizeof "/proc/" + NAME_MAX + sizeof STAT];
	int length = snprintf(path, sizeof path, "/proc/%s", name);
	if (length > static_cast<int>(sizeof path - sizeof STAT) || !is_directory(path))
		return false;
	memcpy(path + length, STAT, sizeof STAT);
	return is_child(path, pid, parent);
}

// Calls `action` for each child of `parent`. A result other than 0 ends the scan and is returned.
template <typename F>
static int scan_children(pid_t parent, F action)
{
	owned_directory directory{opendir("/proc")};
	if (!directory.ok()) {
		_log(LOG_ERR, "cannot open %s: err=-%d\n", "/proc", errno);
		return -1;
	}
	for (;;) {
		errno = 0;
		dirent *entry = readdir(directory.get());
		if (!entry)
			break;
		pid_t pid = pid_of(entry->d_name);
		if (!pid || !is_child_entry(entry->d_name, pid, parent))
			continue;
		int result = action(pid);
		if (result)
			return result;
	}
	if (!errno)
		return 0;
	_log(LOG_ERR, "error scanning proc: err=-%d\n", errno);
	return -1;
}

static int terminate(pid_t pid)
{
	if (kill(pid, SIGTERM) != 0)
		_log(LOG_ERR, "error killing %d: err=-%d\n", pid, errno);
	return 0; // a failure does not end the scan
}

int kill_children(pid_t parent)
{
	int result = scan_children(parent, terminate);
	if (result)
		_log(LOG_ERR, "error killing children of $d.\n"); // compatibility, no number in the log
	return result;
}

// ---- The console ----

// A comma ends it wherever it stands, a blank only without any comma: compatibility, console value
static char *copy_value(const char *value)
{
	const char *end = strchr(value, ',');
	if (!end)
		end = strchr(value, ' ');
	return end ? xstrndup(value, static_cast<size_t>(end - value)) : xstrdup(value);
}

char *get_tty(void)
{
	static constexpr char PARAMETER[] = "console=";
	char line[256];
	owned_file file{fopen("/proc/cmdline", "re")};
	if (!file.ok() || !fgets(line, sizeof line, file.get()))
		return nullptr;
	const char *found = strstr(line, PARAMETER);
	return found ? copy_value(found + strlen(PARAMETER)) : nullptr;
}

int redir_to_devnull(int out, int err)
{
	int fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
	if (fd < 0)
		return -1;
	if (out)
		dup2(fd, STDOUT_FILENO);
	if (err)
		dup2(fd, STDERR_FILENO);
	// If a standard descriptor was closed, open may have returned its number: that one stays open.
	if ((out && fd == STDOUT_FILENO) || (err && fd == STDERR_FILENO))
		return fcntl(fd, F_SETFD, 0);
	return close(fd);
}

// ---- JSON and hex ----

int json_array_elements_type_check(const json_t *array, json_type type)
{
	if (!json_is_array(array))
		return 0;
	size_t index;
	const json_t *element;
	json_array_foreach(array, index, element)
		if (json_typeof(element) != type)
			return 0;
	return 1;
}

// Compares as hash_digest2str writes: compatibility, lower-case hex
static bool is_byte(const char *hex, unsigned char byte)
{
	static constexpr char DIGITS[] = "0123456789abcdef";
	return hex[0] == DIGITS[byte >> 4] && hex[1] == DIGITS[byte & 15];
}

int hex_bin_equal(const char *hex, const unsigned char *bin, int length)
{
	if (length < 0 || strlen(hex) != 2 * static_cast<size_t>(length))
		return 0;
	for (int index = 0; index < length; index++, hex += 2)
		if (!is_byte(hex, bin[index]))
			return 0;
	return 1;
}
