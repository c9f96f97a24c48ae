#!/bin/bash
# Has the programs of one version write the databases that later versions are tested with, when the next step of the
# schema is begun: sqliteN.sql and postgresqlN.sql beside this script.
#
#     write_version.sh PROGRAMS N      PROGRAMS: the folder with qor-agent and qorctl; N: their version of the schema
set -euo pipefail
programs=$(realpath "$1")
version=$2
here=$(dirname "$(realpath "$0")")
folder=$(mktemp -d)
own=()
if [ "$(id -u)" -eq 0 ]; then
    own=(setpriv --reuid=65534 --regid=65534 --clear-groups)
    chown 65534:65534 "$folder"
fi
postgres=$(ls -d /usr/lib/postgresql/*/bin | tail -n 1)
agent=
finish() {
    [ -z "$agent" ] || kill "$agent" 2>/dev/null || true
    "${own[@]}" "$postgres/pg_ctl" -D "$folder/data" -m immediate stop >/dev/null 2>&1 || true
    rm -rf "$folder"
}
trap finish EXIT

eid() { printf '%08d-0000-4000-8000-000000000000' "$1"; }

# Of every kind some; what comes again replaces what was there.
records() {
    local last=$1 n
    for ((n = 1; n <= 3; n++)); do
        printf '{"kind":"environment","eid":"%s","parent_eid":"%s","title":"environment %d of %d","state":6,' \
            "$(eid $n)" "$(eid 1)" "$n" "$last"
        printf '"config":{"name":"web","hostname":"web%d","os":{"name":"Debian"},"ip":["10.0.0.%d","10.0.1.%d"]}}\n' "$n" "$n" "$n"
    done
    for ((n = 1; n <= last; n++)); do
        printf '{"kind":"operation","id":"op %d","op":"install","status":%d,"time":%d,"eid":"%s","eids":["%s","%s"],' \
            "$n" $((n % 3)) $((1700000000 + n * 7000)) "$(eid $((n % 3 + 1)))" "$(eid 1)" "$(eid $((n % 3 + 1)))"
        printf '"message":{"package":{"name":"libc%d","version":"2.%d"}}}\n' "$n" "$last"
        printf '{"kind":"event","time":%d,"eid":"%s","source":"kernel","category":"device","info":{"n":"%d"}}\n' \
            $((1700000000 + n * 9000)) "$(eid $((n % 4)))" "$n"
    done
    printf '{"kind":"backup","id":"backup 1","eid":"%s","storage_eid":"%s","time":1700000000,"size":%d,"type":1,' \
        "$(eid 2)" "$(eid 3)" "$((last * 1000000000))"
    printf '"description":"nightly","name":"web","hostname":"web2","info":{"veid":"101","title":"%s"}}\n' 'a \"title\"'
    printf '{"kind":"backup","id":"backup 2","time":1700000000,"size":0,"type":0,"info":{}}\n'
}

# fill CONNECTION: has an agent store what root tells it, and what a machine tells it under keys.
fill() {
    local socket=$folder/agent.sock port token
    "$programs/qor-agent" --socket "$socket" --database "$1" --log-file "$folder/agent.log" --listen http://127.0.0.1:0 \
        >"$folder/agent.out" 2>&1 &
    agent=$!
    until [ -S "$socket" ] && curl -sf --unix-socket "$socket" http://agent/v1/health >/dev/null; do sleep 0.1; done
    port=$(grep -o '127.0.0.1:[0-9]*' "$folder/agent.out" | head -n 1)
    "$programs/qorctl" identity add machine --kind token --full --socket "$socket" >/dev/null
    token=$("$programs/qorctl" token create machine --socket "$socket")
    records 6 | curl -sS --fail-with-body --unix-socket "$socket" --data-binary @- http://agent/v1/records >"$folder/answers"
    for last in 8 9; do
        records $last | curl -sS --fail-with-body -H "Idempotency-Key: request-$last" -H "Authorization: Bearer $token" \
            --data-binary @- "http://$port/v1/records" >>"$folder/answers"
    done
    [ "$(grep -o '"refusedCount":0' "$folder/answers" | wc -l)" -eq 3 ] || { cat "$folder/answers"; exit 1; }
    kill "$agent"
    wait "$agent" || true
    agent=
}

fill "Driver=SQLite3;Database=$folder/agent.db"
sqlite3 "$folder/agent.db" .dump >"$here/sqlite$version.sql"

"${own[@]}" "$postgres/initdb" -D "$folder/data" -U qor --auth=trust --no-sync --encoding=UTF8 --locale=C >/dev/null
"${own[@]}" "$postgres/pg_ctl" -D "$folder/data" -w -o "-k $folder -c listen_addresses= -c fsync=off" -l "$folder/log" start >/dev/null
"$postgres/createdb" -h "$folder" -U qor agent
fill "Driver=PostgreSQL Unicode;Server=$folder;Database=agent;UID=qor"
# Without the commands that only psql knows.
"$postgres/pg_dump" -h "$folder" -U qor --inserts --rows-per-insert=100 --no-owner --no-privileges agent |
    grep -v -e '^\\' -e '^--' -e '^$' >"$here/postgresql$version.sql"
