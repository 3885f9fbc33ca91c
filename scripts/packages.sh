# Sourced by the scripts that gather packages of another architecture, after common.sh.
# They come by an apt with a state of its own, in the folder $apt, which the caller sets. Where packages come
# from is what this machine's own configuration of apt says, and so is how they are checked and through which
# proxy they come; its own state, packages and architectures stay as they are.

# private_sources <type> <folder>: copies the machine's sources of packages, each as a source of that type
# (deb or deb-src) for whatever architecture is asked for.
private_sources()
{
	local type=$1 folder=$2 variables list parts file
	variables=$(apt-config shell list Dir::Etc::sourcelist/f parts Dir::Etc::sourceparts/d)
	eval "$variables"
	for file in "$list" "$parts"/*.list; do
		[ ! -f "$file" ] || sed -nE "/^[[:space:]]*deb[[:space:]]/!d; /[[:space:]]cdrom:/d
			s/^[[:space:]]*deb[[:space:]]+/$type /
			s/^([^[]*\[[^]]*)\<arch[+-]?=[^] ]*/\1/
			s/\[[[:space:]]*\]//
			p" "$file" >"$folder/$(basename "$file")"
	done
	for file in "$parts"/*.sources; do
		[ ! -f "$file" ] || awk -v RS= -v ORS='\n\n' -v type="$type" '
			("\n" $0) ~ /\n[Tt]ypes:[^\n]*deb([ \t\n]|$)/ {
				text = "\n" $0
				gsub(/\n[Aa]rchitectures:[^\n]*(\n[ \t][^\n]*)*/, "", text)
				sub(/\n[Tt]ypes:[^\n]*/, "\nTypes: " type, text)
				print substr(text, 2)
			}' "$file" >"$folder/$(basename "$file")"
	done
}

# make_private_apt <type> <architecture>: what `private_apt` reads after the machine's own configuration.
make_private_apt()
{
	rm -rf "$apt/sources"
	mkdir -p "$apt/sources" "$apt/lists/partial" "$apt/cache/archives/partial"
	: >"$apt/status"
	private_sources "$1" "$apt/sources"
	cat >"$apt/apt.conf" <<-END
		Dir::State "$apt";
		Dir::State::status "$apt/status";
		Dir::Cache "$apt/cache";
		Dir::Etc::sourcelist "/dev/null";
		Dir::Etc::sourceparts "$apt/sources";
		#clear APT::Architectures;
		APT::Architecture "$2";
		APT::Architectures { "$2"; };
		APT::Sandbox::User "root";
		Acquire::Languages "none";
		Acquire::Retries "2";
		#clear APT::Update::Pre-Invoke;
		#clear APT::Update::Post-Invoke;
		#clear APT::Update::Post-Invoke-Success;
	END
	# A source that does not answer matters only if something is then not found.
	private_apt update || true
	compgen -G "$apt/lists/*_dists_*" >/dev/null ||
		die "no list of Debian's packages could be fetched: is the network there? (apt's output: $apt/log)"
}

private_apt()
{
	apt-get -q -c "$apt/apt.conf" "$@" </dev/null >"$apt/log" 2>&1
}

# fetch <command of apt-get> <package>...: into this folder.
fetch()
{
	private_apt "$@" || die_of_apt
}

die_of_apt()
{
	local line
	line=$(sed -n '/^E: /{s///p;q}' "$apt/log")
	die "${line:-apt-get has failed} (apt's output: $apt/log)"
}

# unpack_packages <folder> <file>...
unpack_packages()
{
	local folder=$1 file
	shift
	for file in "$@"; do
		dpkg-deb -x "$file" "$folder" || die "$file does not unpack"
	done
	rm -rf "$folder/usr/share/doc" "$folder/usr/share/man"
	merge_into_usr "$folder" lib
}

# fetch_packages <folder> <package>...: unpacked into that folder, which is made anew.
fetch_packages()
{
	local folder=$1 packages=$apt/packages
	shift
	rm -rf "$folder" "$packages"
	mkdir -p "$folder" "$packages"
	(cd "$packages" && fetch download "$@")
	say "Unpacking them into ${folder#"$PWD/"}"
	unpack_packages "$folder" "$packages"/*.deb
	rm -r "$packages"
}

# merge_into_usr <folder> <name>...: /<name> leads to /usr/<name>, as on every machine with Debian 12.
merge_into_usr()
{
	local folder=$1 name
	shift
	for name in "$@"; do
		mkdir -p "$folder/$name" "$folder/usr/$name"
		cp -a "$folder/$name/." "$folder/usr/$name"
		rm -r "${folder:?}/$name"
		ln -s usr/$name "$folder/$name"
	done
}

# make_links_relative <folder>: links to the root of a machine are made to lead to the same place in here.
make_links_relative()
{
	local link target
	find "$1" -type l -lname '/*' -print0 | while IFS= read -r -d '' link; do
		target=$(readlink "$link")
		ln -sfnr "$1$target" "$link"
	done
}
