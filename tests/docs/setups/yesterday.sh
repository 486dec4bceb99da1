# A copy of what is published, as it was before role 5 could update the web servers and role 7 lost the database.
. "$ARKWELL_SETUPS/access.sh"
mkdir -p backup/yesterday today
cp -R "$TARVO_ROOT/wmc/webserver/temp/." backup/yesterday
rbac-cache ls --json | sed '
    /|ASSETS|web|"/s/"accessDefinitions":\[\]/"accessDefinitions":[{"roleId":5,"propagation":"OBJECT_AND_CHILDREN","operations":["|OPERATIONS|UPDATE|"]}]/
    /|ASSETS|db+1|"/s/"roleId":7/"roleId":9/' >changed.jsonl
"$ARKWELL_BUILD/tests/docs/publish-model" changed.jsonl "$TARVO_ROOT/wmc/webserver/temp"
