#!/bin/bash
# install-files.sh: puts down what the manifest beside it lists, below $DESTDIR.
# Run by "cmake --install". Owners are set by root alone; a package made by an
# ordinary user gets them when it is unpacked. Exit status 0, or 1 with a line
# on stderr for each entry that could not be put down.

here=$(dirname "$(readlink -f "$0")")
umask 022

ownership() { if ((EUID == 0)); then printf '%s\n' -o "$1" -g "$2"; fi; }

# One entry; the columns are the manifest's.
putDown() {
  local path=$DESTDIR$1 type=$2 mode=$5 source=$6 owner
  mapfile -t owner < <(ownership "$3" "$4")
  case $type in
    dir) install -d "${owner[@]}" -m "$mode" "$path" ;;
    file) install -pD "${owner[@]}" -m "$mode" "$here/$source" "$path" ;;
    conf) [[ -e $path ]] || install -pD "${owner[@]}" -m "$mode" "$here/$source" "$path" ;;
    link) mkdir -p "${path%/*}" && ln -sfn "$source" "$path" ;;
    built) ;;
    *) return 1 ;;
  esac
}

status=0
while read -r -a entry; do
  [[ ${#entry[@]} -gt 0 && ${entry[0]} != \#* ]] || continue
  putDown "${entry[@]}" || {
    echo "cannot install ${entry[0]} (${entry[1]})" >&2
    status=1
  }
done <"$here/manifest"
exit "$status"
