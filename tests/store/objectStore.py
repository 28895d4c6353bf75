"""An object store that lives in a directory: objectStore.py DIR prepare SECRET ACCOUNT_PORT CONTAINER_PORT OBJECT_PORT
PROXY_PORT makes its files, objectStore.py DIR account|container|object|proxy then runs one of its servers, all of which it
needs. SECRET is that of the user test:tester. No file outside of the directory is written; the system's log and the
memory cache are looked for on port 9 of loopback, where nobody is.
"""
import getpass
import os
import sys

from swift.common import utils
from swift.common.ring import RingBuilder
from swift.common.wsgi import run_wsgi
from swift.obj.server import global_conf_callback

HEAD = """
[DEFAULT]
bind_ip = 127.0.0.1
bind_port = {port}
workers = 0
user = {user}
swift_dir = {home}
devices = {home}/devices
mount_check = false
disable_fallocate = true
log_level = INFO
log_udp_host = 127.0.0.1
log_udp_port = 9
"""
STORAGE = """
[pipeline:main]
pipeline = {kind}-server
[app:{kind}-server]
use = egg:swift#{kind}
"""
# Without its memory cache the proxy asks the other servers each time: there is nothing to wait for.
PROXY = """
[pipeline:main]
pipeline = catch_errors cache s3api tempauth slo proxy-server
[app:proxy-server]
use = egg:swift#proxy
account_autocreate = true
[filter:catch_errors]
use = egg:swift#catch_errors
[filter:cache]
use = egg:swift#memcache
memcache_servers = 127.0.0.1:9
[filter:s3api]
use = egg:swift#s3api
location = us-east-1
[filter:tempauth]
use = egg:swift#tempauth
user_test_tester = {secret} .admin
[filter:slo]
use = egg:swift#slo
"""


def path(*names):
    return os.path.join(home, *names)


def write(name, text):
    with open(path(name), "w") as file:
        file.write(text)


def prepare(secret, *ports):
    os.makedirs(path("devices/disk"))
    write("swift.conf", "[swift-hash]\nswift_hash_path_suffix = test\n")
    for kind, port in zip(("account", "container", "object", "proxy"), ports):
        template = HEAD + (PROXY if kind == "proxy" else STORAGE)
        write(kind + ".conf", template.format(kind=kind, port=port, home=home, user=getpass.getuser(), secret=secret))
        if kind == "proxy":
            continue
        ring = RingBuilder(part_power=1, replicas=1, min_part_hours=0)
        ring.add_dev({"region": 1, "zone": 1, "ip": "127.0.0.1", "port": int(port), "device": "disk", "weight": 1})
        ring.rebalance()
        ring.get_ring().save(path(kind + ".ring.gz"))


def serve(kind):
    utils.set_swift_dir(home)
    utils.capture_stdio = lambda *args, **kwargs: None  # what it says goes to standard error
    callback = {"global_conf_callback": global_conf_callback} if kind == "object" else {}
    return run_wsgi(path(kind + ".conf"), kind + "-server", verbose=True, **callback)


home, task = os.path.abspath(sys.argv[1]), sys.argv[2]
if task == "prepare":
    prepare(*sys.argv[3:])
else:
    sys.exit(serve(task))
