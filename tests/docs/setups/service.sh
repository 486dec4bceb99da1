# A running service, and a session of alice, who has role 1.
rbac-sandbox init
rbac-sandbox serve >service.log 2>&1 &
until grep -q '^serving on' service.log; do sleep 0.05; done
rbac-sandbox users add alice --roles 1
(umask 077 && rbac-sandbox tokens issue alice >session.jwt)
