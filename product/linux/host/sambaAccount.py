"""sambaAccount.py NAME -- makes one account in Samba's password database, whole from its first moment.

The password is read from standard input, to its end, and is UTF-8.  The user must exist on this host.
Standard output: the account's SID.
Exit status: 0 made; 3 Samba has an account of this name already; 1 failed, with the reason on standard
error.  Unless the status is 0, what is left of the account, if anything, cannot log in.

Samba's commands would make an account that may change its password.  Only these bindings, which come
with Samba, can refuse it that.
"""

import sys

# Python is started without its site module, which takes longer than all of this.
sys.path.insert(0, '/usr/lib/python3/dist-packages')
from samba.samba3 import param, passdb  # noqa: E402

ACB_NORMAL = 0x10  # a user who can log in; what is just created cannot yet
NEVER = 2**63 - 1  # as the time from which the password may be changed: it may not be
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
