"""Stand-in for the Ulm hypervisor's local connection: SmartConnect returns
a service instance whose managers record their calls (see pyHstApi)."""
from pyHstApi import hst, modes, record, users, save_users, _Namespace


class _AccountManager(object):
    def CreateUser(self, user_spec):
        record("CreateUser", user_spec.id, user_spec.password)
        if "nopermission" in modes():
            raise hst.fault.NoPermission()
        names = users()
        if user_spec.id in names or "ghost" in modes():
            raise hst.fault.AlreadyExists()
        save_users(names + [user_spec.id])

    def RemoveUser(self, name):
        record("RemoveUser", name)
        names = users()
        if name not in names or "ghost" in modes():
            raise hst.fault.UserNotFound(name)
        save_users([n for n in names if n != name])


class _HostAccessManager(object):
    def __init__(self):
        self.lockdownMode = (hst.HostLockdownMode.lockdownNormal if "lockdown" in modes()
                             else hst.HostLockdownMode.lockdownDisabled)

    def QueryLockdownExceptions(self):
        record("QueryLockdownExceptions")
        if "lockdown-error" in modes():
            raise RuntimeError("boom")
        return ["root"]

    def UpdateLockdownExceptions(self, names):
        record("UpdateLockdownExceptions", ",".join(names))
        if "stale" in modes():
            raise hst.fault.UserNotFound("olduser")


class _Role(object):
    def __init__(self, name, roleId):
        self.name = name
        self.roleId = roleId


class _AuthorizationManager(object):
    roleList = [_Role("NoAccess", -5), _Role("ReadOnly", -2), _Role("Admin", -1)]

    def SetEntityPermissions(self, entity, permissions):
        for p in permissions:
            record("SetEntityPermissions", entity.name, p.principal, p.roleId, p.group, p.propagate)
        if "norole" in modes():
            raise hst.fault.NotFound()


class _SessionManager(object):
    def Logout(self):
        record("Logout")


def SmartConnect(user=None, **kwargs):
    record("SmartConnect", user)
    host = _Namespace()
    host.configManager = _Namespace()
    host.configManager.hostAccessManager = _HostAccessManager()
    compute = _Namespace()
    compute.host = [host]
    host_folder = _Namespace()
    host_folder.childEntity = [compute]
    datacenter = _Namespace()
    datacenter.hostFolder = host_folder
    root = _Namespace()
    root.name = "rootFolder"
    root.childEntity = [datacenter]
    si = _Namespace()
    si.content = _Namespace()
    si.content.rootFolder = root
    si.content.accountManager = _AccountManager()
    si.content.authorizationManager = _AuthorizationManager()
    si.content.sessionManager = _SessionManager()
    return si
