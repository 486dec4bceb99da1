# A database server of the page's own, whose administrator every command is.
chmod 711 .
programs=$(find /usr/lib/postgresql -name bin | sort -V | tail -n 1)
mkdir postgres
as_server() { "$@"; }
if [ "$(id -u)" = 0 ]; then
    chown postgres: postgres
    as_server() { runuser -u postgres -- "$@"; }
fi
PGHOST=$PWD/postgres
PGPORT=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
export PGHOST PGPORT PGUSER=postgres
as_server "$programs/initdb" --pgdata="$PGHOST/data" --username=postgres --auth-local=trust --auth-host=scram-sha-256 \
    --encoding=UTF8 --locale=C --no-sync
as_server "$programs/postgres" -D "$PGHOST/data" -p "$PGPORT" -c listen_addresses=localhost \
    -c unix_socket_directories="$PGHOST" -c fsync=off -c shared_buffers=8MB >postgres.log 2>&1 &
until "$programs/pg_isready" -q; do sleep 0.05; done
