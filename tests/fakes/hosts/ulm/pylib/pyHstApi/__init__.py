"""Stand-in for the Ulm hypervisor's local API types (hst) used by the
agent's user script. Every call on a managed object is appended to
calls.log as "hst <Method> <args...>". Users live in the file hst_users of
the state directory, so that a second run sees the first one's account.

ZEL_FAKE_HST_MODE, a comma list, injects faults:
  nopermission    CreateUser raises hst.fault.NoPermission
  lockdown        the host is in lockdown mode (lockdownNormal)
  stale           UpdateLockdownExceptions raises UserNotFound("olduser")
  lockdown-error  QueryLockdownExceptions raises RuntimeError("boom")
  norole          SetEntityPermissions raises hst.fault.NotFound
  ghost           CreateUser raises AlreadyExists and RemoveUser UserNotFound
"""
import os


def _state():
    return os.environ.get("ZEL_FAKE_HOST_DIR") or os.environ.get("ZEL_SANDBOX_DIR") or ""


def modes():
    return set(m for m in os.environ.get("ZEL_FAKE_HST_MODE", "").split(",") if m)


def record(*words):
    state = _state()
    if state:
        with open(os.path.join(state, "calls.log"), "a") as log:
            log.write(" ".join(["hst"] + [str(w) for w in words]) + "\n")


def users():
    path = os.path.join(_state() or "/nonexistent", "hst_users")
    if not os.path.exists(path):
        return []
    with open(path) as f:
        return [line.strip() for line in f if line.strip()]


def save_users(names):
    state = _state()
    if state:
        with open(os.path.join(state, "hst_users"), "w") as f:
            f.write("".join(n + "\n" for n in names))


class _Namespace(object):
    pass


class _Fault(Exception):
    pass


class _AlreadyExists(_Fault):
    pass


class _NoPermission(_Fault):
    pass


class _UserNotFound(_Fault):
    def __init__(self, principal=""):
        _Fault.__init__(self, principal)
        self.principal = principal


class _NotFound(_Fault):
    pass


class _AccountSpecification(object):
    def __init__(self):
        self.id = None
        self.password = None


class _Permission(object):
    def __init__(self):
        self.group = None
        self.principal = None
        self.propagate = None
        self.roleId = None


hst = _Namespace()
hst.fault = _Namespace()
hst.fault.AlreadyExists = _AlreadyExists
hst.fault.NoPermission = _NoPermission
hst.fault.UserNotFound = _UserNotFound
hst.fault.NotFound = _NotFound
hst.host = _Namespace()
hst.host.LocalAccountManager = _Namespace()
hst.host.LocalAccountManager.AccountSpecification = _AccountSpecification
hst.HostLockdownMode = _Namespace()
hst.HostLockdownMode.lockdownDisabled = "lockdownDisabled"
hst.HostLockdownMode.lockdownNormal = "lockdownNormal"
hst.AuthorizationManager = _Namespace()
hst.AuthorizationManager.Permission = _Permission


class HstApiSupport(object):
    pass
