#!/usr/bin/env bash
# Three songs through one of the batch schedulers, for real: a damaged one fails and the others do not,
# it alone is rendered once it is repaired, and two never run at once where memory is for one.
#
# usage: batch_test.sh parallel|snakemake|slurm SOURCE_FOLDER BUILD_FOLDER
# Exit status: 0 passed, 1 failed, 77 not tested here.
set -euo pipefail
scheduler=$1 source=$2 build=$3
readonly kNotTested=77

not_tested() {
  echo "NOT TESTED: $*"
  exit "$kNotTested"
}

fail() {
  echo "batch_test.sh $scheduler: $*" >&2
  tail -n 20 "$work"/*.log >&2 || true
  exit 1
}

[[ -n ${VERDEL_LONG_TESTS:-} ]] || not_tested "scripts/test --long runs this"

work=$(mktemp -d "${TMPDIR:-/tmp}/verdel-batch-XXXXXX")
daemons=()
clean_up() {
  ((${#daemons[@]} == 0)) || kill "${daemons[@]}" 2>/dev/null || true
  wait || true
  rm -rf "$work"
}
trap clean_up EXIT

# Stands before the real program and notes when a render begins and ends.
mkdir "$work/bin" "$work/songs"
for program in verdel verdel-chain; do
  cat >"$work/bin/$program" <<END
#!/usr/bin/env bash
[[ " \$* " == *" --suggest-excerpt "* ]] && exec "$build/verdel" "\$@"
echo "begin \${PWD##*/}" >>"$work/events"
status=0
"$build/$program" "\$@" || status=\$?
echo "end \${PWD##*/}" >>"$work/events"
exit \$status
END
  chmod +x "$work/bin/$program"
done
export PATH="$work/bin:$source/packaging/batch:$build:$PATH"
for song in one two three; do
  "$build/examples/demo_project" "$work/songs/$song" --seconds 2 --stems 2 >/dev/null
done
cd "$work/songs"
one_song=$(verdel-song-memory one)

with_parallel() {
  command -v parallel >/dev/null || not_tested "GNU parallel is not installed"
  run() { VERDEL_BATCH_MEMORY=$((one_song * 3 / 2)) verdel-parallel ${1:+--check} --deliver "$@" one two three; }
}

with_snakemake() {
  command -v snakemake >/dev/null || not_tested "Snakemake is not installed"
  run() {
    snakemake --snakefile "$source/packaging/batch/Snakefile" --directory . --cores 4 \
      --resources mem_mb=$((one_song * 3 / 2)) --retries 2 --keep-going --config deliver=yes ${1:+chain=yes}
  }
}

# A cluster of this one machine that listens on its own address only.
with_slurm() {
  local program host
  for program in sbatch slurmctld slurmd munged; do
    command -v "$program" >/dev/null || not_tested "$program is not installed"
  done
  [[ $(id -u) == 0 ]] || not_tested "a Slurm node is started by root"
  host=$(hostname -s)
  mkdir -m 755 "$work/munge" "$work/state" "$work/spool"
  chmod 755 "$work"
  (umask 077 && head -c 1024 /dev/urandom >"$work/munge/key")
  munged --foreground --force --key-file="$work/munge/key" --socket="$work/munge/socket" \
    --pid-file="$work/munge/pid" --seed-file="$work/munge/seed" --log-file="$work/munged.log" \
    2>"$work/munged-start.log" &
  daemons+=($!)
  sed "s|@WORK@|$work|; s|@HOST@|$host|; s|@MEMORY@|$((one_song * 3 / 2))|
    s|@CONTROL_PORT@|$((20000 + RANDOM % 5000))|; s|@NODE_PORT@|$((25000 + RANDOM % 5000))|" \
    "$source/tests/data/batch/slurm.conf.in" >"$work/slurm.conf"
  export SLURM_CONF=$work/slurm.conf
  slurmctld -D >"$work/slurmctld.log" 2>&1 &
  daemons+=($!)
  slurmd -D -N "$host" >"$work/slurmd.log" 2>&1 &
  daemons+=($!)
  local try
  for ((try = 0; try < 600; ++try)); do
    [[ $(sinfo -h -o %t 2>/dev/null) == idle ]] && break
    sleep 0.1
  done
  run() { SBATCH_WAIT=1 verdel-slurm --deliver "$@" one two three; }
}

"with_$scheduler"
rendered() { sed -n 's/^begin //p' "$work/events" | sort | uniq -c | awk '{printf "%s:%s ", $2, $1}'; }

mv two/taps "$work/taps-of-two"
mkdir two/taps
head -c 5000 /dev/urandom >two/taps/Kick.wav
: >"$work/events"
run >"$work/first.log" 2>&1 && fail "a damaged song went unnoticed"
[[ $(rendered) == "one:1 three:1 two:3 " ]] || fail "first run: $(rendered)"
[[ -f one/proof.json && -f three/proof.json && ! -e two/proof.json ]] || fail "wrong proofs"

rm -r two/taps
mv "$work/taps-of-two" two/taps
before=$(stat -c '%n %i %Y' one/out/*.wav three/out/*.wav)
cat "$work/events" >"$work/events.first"
: >"$work/events"
run >"$work/second.log" 2>&1 || fail "a repaired song failed"
[[ $(rendered) == "two:1 " ]] || fail "second run: $(rendered)"
[[ $(stat -c '%n %i %Y' one/out/*.wav three/out/*.wav) == "$before" ]] || fail "rendered anew"
for song in one two three; do
  grep -q '"passed": true' "$song/proof.json" || fail "$song is not proved"
  grep -q '"sums_exactly": true' "$song/delivery/manifest.json" || fail "$song is not delivered"
done

rm one/proof.json
: >"$work/events"
run --chain >"$work/third.log" 2>&1 || fail "a song with its chain failed"
[[ $(rendered) == "one:1 " && $(head -n 1 one/verdel.log) == "--- master chain ---" ]] ||
  fail "third run: $(rendered)"
run --chain >"$work/fourth.log" 2>&1 || fail "a proved song with its chain failed"
[[ $(rendered) == "one:1 " ]] || fail "the places in a log with a chain were not found"

awk '$1 == "begin" && ++running > 1 { exit 1 } $1 == "end" { --running }' "$work/events.first" ||
  fail "two songs at once: $(tr '\n' ' ' <"$work/events.first")"
echo "batch_test.sh $scheduler: passed"
