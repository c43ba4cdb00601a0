# Prints the names of the event types of the data files on a command line, which is given word for word. It stands in
# single quotes in the completions of three shells, so it has neither an apostrophe nor two backslashes.
schema=schema
first=
expect=
for word; do
  case $expect:$word in
    s:*) schema=$word ;;
    o:*) ;;
    :--schema-path=*) schema=${word#*=} ;;
    :-s?*) schema=${word#-s} ;;
    :-*) ;;
    *) [ -n "$first" ] || [ ! -f "$word" ] || first=$word ;;
  esac
  case $expect:$word in
    :-s | :--schema-path) expect=s ;;
    :-[vgliefd] | :--verbose | :--output-dir | :--timestamp-[gl]t) expect=o ;;
    :--include-counters | :--exclude-counters | :--format | :--data-dir) expect=o ;;
    *) expect= ;;
  esac
done
[ -n "$first" ] || exit 0
folder=$(dirname "$first")
for level in 1 2 3 4 5; do
  [ ! -e "$schema" ] || break
  [ ! -e "$folder/schema" ] || schema=$folder/schema
  folder=$(dirname "$folder")
done
for word; do
  case $word in -*) continue ;; esac
  [ -f "$word" ] || continue
  gzip -dcf -- "$word" 2>/dev/null | head -c 256 | od -An -v -tx1 -j132 -N112 | tr -d " \n" | fold -w 32 |
    while read -r id || [ -n "$id" ]; do
      [ ! -r "$schema/schema_$id.json" ] || sed -n "s/^ *\"name\": \"\(.*\)\",*$/\1/p" "$schema/schema_$id.json"
    done
done | sort -u
