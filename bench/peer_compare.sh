#!/usr/bin/env bash
# Differential check of `arvo-fim scan` against AIDE on random change sets.
#
#   bench/peer_compare.sh [--seeds N] [--changes N] [--arvo-fim PATH]
#                         [--scratch DIR] [--keep]
#
# For each seed it builds a tree of about 3,000 objects (files of various
# sizes, directories, symbolic links, hard links, ACLs when setfacl exists)
# on the scratch directory, which must be a disk file system (ext4), not
# tmpfs: inode reuse is part of what is checked. Both tools take a baseline,
# a seeded random series of changes is applied, and both tools check.
#
# The ground truth is tool-neutral: a per-path snapshot (lstat, SHA-256 or
# link target, access and default ACL) taken before and after the changes,
# plus a log of the changes that alter which object a path names (create,
# delete, rename, hard link). Each report is "true" when the truth allows it
# at that path, "untrue" otherwise (a content change on an untouched file, a
# rename from a path whose inode was merely reused, ...); a truth entry no
# report covers is "missed". A path that was replaced by another object may
# be reported either way (deleted+created, or content/metadata changed).
# Classes: created, deleted, content, metadata, acl, renamed-from. A moved
# object may be reported as created, or as renamed; then its content, mode,
# owner and ACL changes must be reported too (not the change time or the
# directory mtime the move itself touches).
#
# Prints a table per seed and the totals; exits 1 when arvo-fim has any
# untrue or missed report (details in SCRATCH/seed-N/arvo-faults.txt).
# Runs as root (chown); needs python3 and aide (apt-get install aide).
set -euo pipefail

here="$(cd "$(dirname "$0")/.." && pwd)"
ARVO="$here/build/bin/arvo-fim"  # scripts/setup.sh builds it
SCRATCH="$here/.peer-scratch"
SEEDS=10 CHANGES=60 KEEP=0

usage() { sed -n '2,/^set -euo/p' "$0" | sed '$d; s/^# \{0,1\}//'; exit "${1:-0}"; }

parse_args() {
  while (($#)); do
    case $1 in
      --seeds) SEEDS=$2; shift ;;
      --changes) CHANGES=$2; shift ;;
      --arvo-fim) ARVO=$2; shift ;;
      --scratch) SCRATCH=$2; shift ;;
      --keep) KEEP=1 ;;
      -h|--help) usage ;;
      *) echo "unknown option: $1" >&2; usage 2 ;;
    esac
    shift
  done
  command -v aide >/dev/null || { echo "aide missing: apt-get install -y aide" >&2; exit 2; }
  [[ -x $ARVO ]] || { echo "arvo-fim not found: $ARVO" >&2; exit 2; }
  HAVE_ACL=0; command -v setfacl >/dev/null && HAVE_ACL=1
  mkdir -p "$SCRATCH" && echo '*' >"$SCRATCH/.gitignore"
  [[ $(stat -f -c %T "$SCRATCH") != tmpfs ]] || { echo "scratch is on tmpfs" >&2; exit 2; }
}

# --- the tree and its changes -------------------------------------------
# Random choices come from $RANDOM, seeded per run; helpers set globals
# (PICKED) rather than print, since a subshell would fork the sequence.

log() { printf '%s\n' "$*" >>"$LOG"; }   # identity changes, for the truth
random_file() {   # mostly small, a few up to 1.3 MB
  local r=$((RANDOM % 100)) size=0
  if ((r >= 80)); then size=$((RANDOM * (r < 99 ? 2 : 40))); elif ((r >= 5)); then size=$((RANDOM % 4096)); fi
  head -c "$size" /dev/urandom >"$1"
}
pick() {   # pick FIND-TESTS...: PICKED = a random object below the area
  local c; mapfile -t c < <(find "$AREA" -mindepth 1 "$@" | sort)
  ((${#c[@]})) || return 1
  PICKED=${c[RANDOM % ${#c[@]}]}
}
pick_dir() { pick -type d || PICKED=$AREA; ((RANDOM % 8)) || PICKED=$AREA; }
fresh() { SEQ=$((SEQ + 1)); FRESH="$1/n$SEQ"; }   # a new name in dir $1

build_tree() {
  local dirs=("$AREA") files=() i d f
  mkdir -p "$AREA"
  for ((i = 0; i < 150; i++)); do
    d="${dirs[RANDOM % ${#dirs[@]}]}/d$i"; mkdir "$d"; dirs+=("$d")
  done
  for ((i = 0; i < 2300; i++)); do
    f="${dirs[RANDOM % ${#dirs[@]}]}/f$i"; random_file "$f"; files+=("$f")
  done
  for ((i = 0; i < 300; i++)); do      # relative, absolute and dangling
    f="${files[RANDOM % ${#files[@]}]}"; d="${dirs[RANDOM % ${#dirs[@]}]}"
    case $((i % 3)) in
      0) ln -s "$f" "$d/l$i" ;; 1) ln -s "../x$i" "$d/l$i" ;; 2) ln -s "${f##*/}" "$d/l$i" ;;
    esac
  done
  for ((i = 0; i < 250; i++)); do
    ln "${files[RANDOM % ${#files[@]}]}" "${dirs[RANDOM % ${#dirs[@]}]}/h$i"
  done
  ((HAVE_ACL)) || return 0
  for ((i = 0; i < 100; i++)); do
    setfacl -m "u:$((RANDOM % 1000 + 1)):r" "${files[RANDOM % ${#files[@]}]}"
  done
}

m_rewrite() { pick -type f -size +0 || return 0
  head -c "$(stat -c %s "$PICKED")" /dev/urandom | dd of="$PICKED" conv=notrunc status=none; }
m_append() { pick -type f && printf 'more %s\n' $RANDOM >>"$PICKED"; }
m_truncate() { pick -type f -size +1c && truncate -s "$(($(stat -c %s "$PICKED") / 2))" "$PICKED"; }
m_chmod() { pick -type f && chmod "0$((RANDOM % 8))$((RANDOM % 8))$((RANDOM % 8))" "$PICKED"; }
m_chmod_dir() { pick -type d && chmod "07$((RANDOM % 8))$((RANDOM % 8))" "$PICKED"; }
m_chown() { pick && chown -h "$((RANDOM % 60000 + 1)):$((RANDOM % 60000 + 1))" "$PICKED"; }
m_backdate() { pick && touch -h -m -d "2001-02-03 04:05:$((RANDOM % 60))" "$PICKED"; }
m_setfacl() { ((HAVE_ACL)) && pick \( -type f -o -type d \) &&
  setfacl -m "u:$((RANDOM % 1000 + 1)):rw" "$PICKED"; }
m_setfacl_default() { ((HAVE_ACL)) && pick -type d &&
  setfacl -d -m "u:$((RANDOM % 1000 + 1)):r" "$PICKED"; }
m_rm() { pick \( -type f -o -type l \) && rm "$PICKED" && log delete "$PICKED"; }
m_rm_hardlink() { pick -type f -links +1 && rm "$PICKED" && log delete "$PICKED"; }
m_rm_tree() { pick -mindepth 2 -type d && rm -rf "$PICKED" && log delete "$PICKED"; }
m_reuse_elsewhere() {   # free an inode, then create another file elsewhere
  pick -type f -links 1 || return 0
  local old=$PICKED; rm "$old"; log delete "$old"
  PICKED=${old%/*}; ((RANDOM % 3)) || pick_dir   # a sibling gets the inode most often
  fresh "$PICKED"; random_file "$FRESH"; log new "$FRESH"; }
m_reuse_same_name() {
  pick -type f -links 1 || return 0
  rm "$PICKED"; log delete "$PICKED"; random_file "$PICKED"; log new "$PICKED"; }
m_rename() { pick || return 0; fresh "${PICKED%/*}"
  mv -T "$PICKED" "$FRESH" && log rename "$PICKED" "$FRESH"; }
m_move() {   # keeps the name when the target directory has none like it
  pick \( -type f -o -type l \) || return 0; local src=$PICKED dst
  pick_dir; dst="$PICKED/${src##*/}"; [[ ! -e $dst && ! -L $dst ]] || dst+=".m$SEQ"
  mv -T "$src" "$dst" && log rename "$src" "$dst" && DST=$dst; }
m_move_dir() {
  pick -type d || return 0; local src=$PICKED
  pick_dir; [[ $PICKED/ == "$src"/* || -e $PICKED/${src##*/} ]] && return 0
  mv -T "$src" "$PICKED/${src##*/}" && log rename "$src" "$PICKED/${src##*/}"; }
m_move_chmod() { m_move && [[ -f $DST && ! -L $DST ]] && chmod "0$((RANDOM % 8))7$((RANDOM % 8))" "$DST"; }
m_replace() {   # the editor's way: a temporary file renamed over the original
  pick -type f || return 0; local tmp="${PICKED%/*}/.tmp$SEQ"
  random_file "$tmp"; log new "$tmp"; mv -T "$tmp" "$PICKED"; log rename "$tmp" "$PICKED"; }
m_mv_over() {
  pick -type f || return 0; local src=$PICKED; pick -type f || return 0
  [[ $src -ef $PICKED ]] && return 0
  mv -T "$src" "$PICKED" && log rename "$src" "$PICKED"; }
m_link() { pick -type f || return 0; local src=$PICKED; pick_dir; fresh "$PICKED"
  ln "$src" "$FRESH" && log link "$src" "$FRESH"; }
m_retarget() { pick -type l || return 0; local l=$PICKED; pick_dir
  ln -sfn "$PICKED" "$l" && log delete "$l" && log new "$l"; }
m_symlink_to_dir() { pick -type l && rm "$PICKED" && mkdir "$PICKED" &&
  log delete "$PICKED" && log new "$PICKED"; }
m_new_dir() { pick_dir; fresh "$PICKED"; mkdir "$FRESH"; log new "$FRESH"
  random_file "$FRESH/a"; log new "$FRESH/a"; ln -s a "$FRESH/b"; log new "$FRESH/b"; }
m_chmod_root() { chmod "07$((RANDOM % 6))$((RANDOM % 6))" "$AREA"; }

KINDS=(rewrite append truncate chmod chmod_dir chown backdate setfacl setfacl_default rm
  rm_hardlink rm_tree reuse_elsewhere reuse_same_name rename move move_chmod move_dir replace mv_over
  link retarget symlink_to_dir new_dir chmod_root)

apply_changes() {
  local i k
  for ((i = 0; i < CHANGES; i++)); do
    k=${KINDS[RANDOM % ${#KINDS[@]}]}
    PICKED=; "m_$k" || true; log "# $k $PICKED"
  done
}

# --- the tools ------------------------------------------------------------

arvo() {   # arvo OUT: one scan; the first one builds the baseline
  local rc=0
  ARVO_FIM_DB="$W/arvo.db" ARVO_FIM_STORAGE="$W/arvo.state" \
    "$ARVO" scan --format json "$AREA" >"$1" 2>>"$W/arvo.stderr" || rc=$?
  ((rc <= 1)) || { echo "arvo-fim scan failed ($rc), see $W/arvo.stderr" >&2; exit 2; }
}

aide_run() {   # aide_run --init|--check
  local rc=0
  aide --config "$W/aide.conf" "$1" >"$W/aide$1.json" 2>>"$W/aide.stderr" || rc=$?
  ((rc < 14)) || { echo "aide $1 failed ($rc), see $W/aide.stderr" >&2; exit 2; }
  [[ $1 != --init ]] || mv "$W/aide.db.new" "$W/aide.db"
}

aide_conf() {   # every attribute both tools can see; no atime
  cat >"$W/aide.conf" <<EOF
database_in=file:$W/aide.db
database_out=file:$W/aide.db.new
gzip_dbout=no
report_format=json
report_url=stdout
R = p+i+n+u+g+s+m+c+sha256+acl+ftype+l
$AREA R
EOF
}

run_seed() {
  local seed=$1
  W="$SCRATCH/seed-$seed" AREA="$SCRATCH/seed-$seed/area" LOG="$SCRATCH/seed-$seed/changes.log"
  rm -rf "$W"; mkdir -p "$W"; : >"$LOG"
  RANDOM=$seed SEQ=0
  build_tree
  aide_conf
  arvo "$W/arvo-baseline.jsonl"; aide_run --init
  py snap "$AREA" "$W/before.json"
  sleep 1.1   # AIDE keeps whole seconds; let every touched time differ
  apply_changes
  py snap "$AREA" "$W/after.json"
  arvo "$W/arvo-check.jsonl"; aide_run --check
  py classify "$W" "$seed"
  ((KEEP)) || rm -rf "$AREA" "$W"/*.db "$W"/*.db.new
}

py() { python3 - "$@" <<'PYTHON'
import hashlib, json, os, stat, sys
C, D, CT, MD, ACL = "created", "deleted", "content", "metadata", "acl"
META = ("mode", "uid", "gid", "nlink", "size", "mtime", "ctime")
OWN = ("mode", "uid", "gid")   # what no rename changes by itself

def xattr(p, name):
    try: return os.getxattr(p, name, follow_symlinks=False).hex()
    except OSError: return ""

def info(p):
    st = os.lstat(p)
    d = dict(type=stat.S_IFMT(st.st_mode), mode=stat.S_IMODE(st.st_mode), uid=st.st_uid,
             gid=st.st_gid, nlink=st.st_nlink, size=st.st_size, mtime=st.st_mtime_ns,
             ctime=st.st_ctime_ns, ino=st.st_ino, acl=xattr(p, "system.posix_acl_access"),
             dacl=xattr(p, "system.posix_acl_default"))
    if stat.S_ISREG(st.st_mode):
        with open(p, "rb") as f: d["data"] = hashlib.file_digest(f, "sha256").hexdigest()
    elif stat.S_ISLNK(st.st_mode): d["data"] = os.readlink(p)
    return d

def snap(area, out):
    tree = {area: info(area)}
    for root, dirs, files in os.walk(area):
        for n in dirs + files: tree[os.path.join(root, n)] = info(os.path.join(root, n))
    json.dump(tree, open(out, "w"))

def replay(before, log):
    """after-path -> (path the object had in the baseline or None, how it got here)"""
    origin = {p: (p, "same") for p in before}
    under = lambda a: [q for q in origin if q == a or q.startswith(a + "/")]
    for line in open(log):
        op, *a = line.split()
        if op == "delete": [origin.pop(q) for q in under(a[0])]
        elif op == "new": origin[a[0]] = (None, "new")
        elif op == "link": origin[a[1]] = (origin[a[0]][0], "linked" if origin[a[0]][0] else "new")
        elif op == "rename":
            for q in under(a[1]): origin.pop(q)
            for q in under(a[0]):
                o, k = origin.pop(q); n = a[1] + q[len(a[0]):]
                origin[n] = (o, k if o is None or k == "linked" else "same" if o == n else "moved")
    return origin

def diffs(b, a, keys=META):
    if b["type"] != a["type"]: return {CT, MD}
    return ({CT} if b.get("data") != a.get("data") else set()) | \
           ({MD} if any(b[k] != a[k] for k in keys) else set()) | \
           ({ACL} if (b["acl"], b["dacl"]) != (a["acl"], a["dacl"]) else set())

def truth(before, after, origin):
    """path -> (reports allowed, requirements: sets of which one report must appear)"""
    t = {}
    for p in set(before) | set(after):
        o, k = origin.get(p, (None, "new"))
        # A hard link whose first name went away is a rename, however made.
        moved = k == "moved" or (k == "linked" and origin.get(o, (None,))[0] != o)
        ren = {("renamed", o)} if moved else set()
        if p not in after: acc, req = {D}, [{D}]
        elif k == "same": d = diffs(before[p], after[p]); acc, req = d, [{x} for x in d]
        elif p in before: acc = {D, C, CT, MD, ACL} | ren; req = [set(acc)]
        elif k == "new": acc, req = {C}, [{C}]
        else:
            # A move touches the change time (and a directory's mtime); what
            # else changed must be reported unless the path is called new.
            d, strong = diffs(before[o], after[p]), diffs(before[o], after[p], OWN)
            acc, req = {C} | ren | d, [{C} | ren] + [{C, x} for x in strong]
        if req or acc: t[p] = (acc, req)
    return t

KIND = {7: C, 8: D, 6: CT, 3: MD, 1: ACL}
def arvo_reports(path):
    for line in open(path):
        e = json.loads(line); f = {x["name"]: x["value"] for x in e["fields"]}
        if e["eventTypeName"] in ("BaselineBuilt", "SystemIntegrityOk"): continue
        k = f.get("FileModificationType")
        c = ("renamed", f.get("OriginalPath")) if k in (9, 13) else KIND.get(k) \
            if e["eventTypeName"] == "SystemIntegrityIssue" else None
        yield f.get("Path"), c or ("other", f"{e['eventTypeName']}/{k}")

def aide_reports(path):
    r = json.load(open(path))
    for p in r.get("added", {}): yield p, C
    for p in r.get("removed", {}): yield p, D
    for p in r.get("changed", {}):
        keys = r.get("details", {}).get(p, {}) or {"?": 0}
        for k, v in keys.items():
            yield p, CT if k in ("sha256", "link_name", "ftype") else \
                ACL if k == "acl" and not mode_only(v) else MD

def mode_only(acl):   # AIDE shows the permission bits as a three-entry ACL
    return all(e.split(":")[1].strip() in ("user", "group", "other") and e.split(":")[2] == ""
               for e in acl.get("old", []) + acl.get("new", []))

def score(reports, t):
    reps = set(reports); got = {}
    for p, c in reps: got.setdefault(p, set()).add(c)
    moved_src = {c[1] for _, c in reps if isinstance(c, tuple) and c[0] == "renamed"}
    faults = [("untrue", p, c) for p, c in sorted(reps, key=str) if c not in t.get(p, ((),))[0]]
    missed = [("missed", p, sorted(r, key=str)) for p, (_, req) in sorted(t.items()) for r in req
              if not got.get(p, set()) & r and not (r == {D} and p in moved_src)]
    return dict(true=len(reps) - len(faults), untrue=len(faults), missed=len(missed),
                faults=faults + missed)

def explain(w, faults, origin):
    """each fault with the changes and arvo-fim events that name its path"""
    log, events = open(f"{w}/changes.log").read().splitlines(), open(f"{w}/arvo-check.jsonl").readlines()
    with open(f"{w}/arvo-faults.txt", "w") as out:
        for kind, p, c in faults:
            out.write(f"{kind}: {p} {c} (origin {origin.get(p)})\n")
            near = lambda s: any(p == a or p.startswith(a + "/") for a in s.split()[1:])
            out.writelines(f"  change: {l}\n" for l in log if near(l))
            out.writelines(f"  event: {e}" for e in events if f'"value":{json.dumps(p)}' in e)

def classify(w, seed):
    before, after = json.load(open(f"{w}/before.json")), json.load(open(f"{w}/after.json"))
    origin = replay(before, f"{w}/changes.log")
    t = truth(before, after, origin)
    res = {"arvo-fim": score(arvo_reports(f"{w}/arvo-check.jsonl"), t),
           "aide": score(aide_reports(f"{w}/aide--check.json"), t)}
    explain(w, res["arvo-fim"]["faults"], origin)
    new = {p for p in after if origin.get(p, (None,))[0] is None}
    gone = {i["ino"] for i in before.values()} - {after[p]["ino"] for p in after if p not in new}
    reuse = sum(after[p]["ino"] in gone for p in new)   # new objects on a freed inode
    print(f"seed {seed}: {len(before)} objects, {len(t)} changed paths, {reuse} inode reuse(s)")
    table(res)
    json.dump(res, open(f"{w}/result.json", "w"), default=list)

def table(res):
    print(f"  {'tool':10} {'true':>6} {'untrue':>7} {'missed':>7}")
    for tool, r in res.items(): print(f"  {tool:10} {r['true']:6} {r['untrue']:7} {r['missed']:7}")

def totals(scratch, seeds):
    tot = {}
    for s in range(1, int(seeds) + 1):
        for tool, r in json.load(open(f"{scratch}/seed-{s}/result.json")).items():
            acc = tot.setdefault(tool, dict(true=0, untrue=0, missed=0))
            for k in acc: acc[k] += r[k]
    print(f"totals over {seeds} seed(s):"); table(tot)
    sys.exit(1 if tot["arvo-fim"]["untrue"] or tot["arvo-fim"]["missed"] else 0)

globals()[sys.argv[1]](*sys.argv[2:])
PYTHON
}

main() {
  parse_args "$@"
  for ((s = 1; s <= SEEDS; s++)); do run_seed "$s"; done
  py totals "$SCRATCH" "$SEEDS"
}

main "$@"
