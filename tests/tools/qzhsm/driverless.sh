#!/usr/bin/env bash
# The tool on local file systems, with attributes and without.
# shellcheck source=tests/tools/qzhsm/common.sh
. "$(dirname "$0")/common.sh"
for type in tmpfs ramfs; do
    on $type
    becomes_stub tape=1
    expect 0 '"stub":true,"managed":(true|false),"logical":3000000,"allocated":[0-9]' info --json "$f"
    same <("$qzhsm" backup "$f" --snapshot) "$work/saved"
    comes_back
    truncate -s 4000000 "$f"
    expect 0 'does not fit: .*file: header says 3000000 bytes, file has 4000000' scan "$fs"
    refused "$f" 'changed since it was stubbed' recall "$f" --from "$work/data"
    truncate -s 3000000 "$f" && touch -d @1000000000 "$f"
    refused "$f" 'is the stub itself' recall "$f" --from "$f"
    refused "$f" 'saved is a stub or the copy of one' recall "$f" --from "$work/saved"
    refused "$work/data" 'data is not a stub \(code 8\)' recall "$work/data" --from "$work/five"
    unchanged "$f" eval "feed; ended 1 'the stub was put back as it was' TERM"
    is_recalled

    expect 0 '^$' stub "$f" --meta m
    feed
    ended 137 '' KILL
    feed
    expect 1 'Another recall of .* is under way \(code 3\)' recall "$f" --from "$work/data"
    ended 0 ''
    same "$f" "$work/data"
    expect 0 '^$' stub "$f" --meta m
    expect 0 'warning: .* has 5 bytes' recall "$f" --from "$work/five" --force
    same "$f" "$work/five"

    refused "$work/saved" 'is a copy of a stub' stub "$work/saved" --meta m
    refused "$work/data" 'modified file .* \(code 3\)' stub "$work/data" --meta m --ref-time 5
    refused "$f" 'not be shorter' stub "$f" --meta m
    refused "$f" 'corrupt metadata' restore-stub "$f" "$work/data" --force
    refused "$f" 'holds data' restore-stub "$f" "$work/saved"
    expect 1 'special file' restore-stub "$fs" "$work/saved"
    [ -z "$(getfattr -d "$fs" 2>/dev/null)" ] || fail "the directory was marked"
    expect 1 'No such file or directory \(code 4\)' stub "$fs/missing" --meta m
done

on tmpfs
: >"$f"
setfattr -n user.NkStubFile -v other "$f" # a mark that is not ours stays
refused "$f" 'File exists \(code 17\)' restore-stub "$f" "$work/saved"
setfattr -n user.NkStubFile -v 1 "$f"
refused "$f" 'makes it an ordinary file' recall "$f" --from "$work/data"
on tmpfs
expect 0 '^$' stub "$f" --meta m
head -c 31000000 /dev/zero >"$fs/filler"
refused "$f" 'No space left on device \(code -1\)' recall "$f" --from "$work/data"
chmod 000 "$f"
qzhsm=setpriv expect 1 'Permission denied' --bounding-set=-dac_override,-dac_read_search "$plain" info "$f"
finish
