"""sambaAccount.py NAME -- makes an account in Samba's password database, and then sets its password and enables it.

Reads the password, in UTF-8, from standard input to its end.  The user must exist on this host.
Prints the account's SID to standard output.
Exit status: 0 made; 3 Samba has an account of this name already; 1 failed, with the reason on standard
error.  After status 1 nobody can log in with the account, if it was made at all.

Samba's commands would make an account that may change its password.  Only these bindings, which come
with Samba, make one that may not.
"""

import sys

# pelagoHost starts Python without its site module, which takes longer to load than this program runs.
sys.path.insert(0, '/usr/lib/python3/dist-packages')
from samba.samba3 import param, passdb  # noqa: E402

ACB_NORMAL = 0x10  # a user's account that can log in; create_user() makes one that cannot
NEVER = 2**63 - 1  # the time from which the user may change the password
EXISTS = 3


def main():
    name, password = sys.argv[1], sys.stdin.buffer.read().decode()
    if not password:
        sys.exit('there is no password')
    settings = param.get_context()
    settings.load_default()
    database = passdb.PDB(settings.get('passdb backend'))
    if exists(database, name):
        return EXISTS
    database.create_user(name, ACB_NORMAL)
    account = database.getsampwnam(name)
    account.plaintext_passwd = password
    account.pass_can_change_time = NEVER
    account.acct_ctrl = ACB_NORMAL
    database.update_sam_account(account)
    print(account.user_sid)
    return 0


def exists(database, name):
    try:
        database.getsampwnam(name)
        return True
    except passdb.error:
        return False


try:
    sys.exit(main())
except passdb.error as error:
    sys.exit(str(error))
