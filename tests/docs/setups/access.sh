# A running service, and in the place of what it published the access of access.jsonl.
. "$ARKWELL_SETUPS/service.sh"
rbac-sandbox users add alice --roles 5,9
rbac-sandbox tokens issue alice >session.jwt
"$ARKWELL_BUILD/tests/docs/publish-model" "$ARKWELL_SETUPS/access.jsonl" "$TARVO_ROOT/wmc/webserver/temp"
