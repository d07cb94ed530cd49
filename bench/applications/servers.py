"""The servers of one variant: nginx in front of FPM, or Apache with the engine's module. One worker
process answers all requests, one after another, so that its processor time is that of the pages."""
import os
import pathlib
import signal
import time

import engines
import loopback
from private_root import GROUP, OWNER
from processes import START_SECONDS, Failure, Process, cpu_seconds, peak_kib, wait_until_idle

HOST = "site.test"

NGINX = """
daemon off;
master_process off;
pid {directory}/nginx.pid;
error_log stderr;
events {{ worker_connections 64; }}
http {{
    access_log off;
    include /etc/nginx/mime.types;
    client_max_body_size 32m;
    client_body_temp_path {directory}/body;
    fastcgi_temp_path {directory}/fastcgi;
    proxy_temp_path {directory}/proxy;
    scgi_temp_path {directory}/scgi;
    uwsgi_temp_path {directory}/uwsgi;
    fastcgi_buffers 64 16k;
    fastcgi_read_timeout 120s;
    server {{
        listen 127.0.0.1:{port};
        server_name {host};
        port_in_redirect off;
        root {documents};
        index index.php;
        location / {{ try_files $uri $uri/ {front}; }}
        location ~ ^(?<script>.+?\\.php)(?<rest>/.*)?$ {{
            try_files $script {front};
            fastcgi_pass unix:{socket};
            fastcgi_param SCRIPT_FILENAME $document_root$script;
            fastcgi_param SCRIPT_NAME $script;
            fastcgi_param PATH_INFO $rest;
            fastcgi_param DOCUMENT_ROOT $document_root;
            fastcgi_param REQUEST_URI $request_uri;
            fastcgi_param QUERY_STRING $query_string;
            fastcgi_param REQUEST_METHOD $request_method;
            fastcgi_param CONTENT_TYPE $content_type;
            fastcgi_param CONTENT_LENGTH $content_length;
            fastcgi_param SERVER_PROTOCOL $server_protocol;
            fastcgi_param SERVER_NAME {host};
            fastcgi_param SERVER_PORT 80;
            fastcgi_param SERVER_SOFTWARE nginx;
            fastcgi_param SERVER_ADDR 127.0.0.1;
            fastcgi_param REMOTE_ADDR 127.0.0.1;
            fastcgi_param GATEWAY_INTERFACE CGI/1.1;
            fastcgi_param REDIRECT_STATUS 200;
        }}
    }}
}}
"""

FPM = """
[global]
error_log = {directory}/fpm.log
daemonize = no
[www]
listen = {socket}
pm = static
pm.max_children = 1
request_terminate_timeout = 120s
catch_workers_output = yes
{identity}
"""

APACHE = """
LoadModule dir_module "{modules}/mod_dir.so"
LoadModule mime_module "{modules}/mod_mime.so"
TypesConfig /etc/mime.types
StartServers 1
MinSpareServers 1
MaxSpareServers 1
MaxRequestWorkers 1
MaxConnectionsPerChild 0
ServerName {host}:80
UseCanonicalName On
UseCanonicalPhysicalPort Off
DirectoryIndex index.php
<Directory "{documents}">
    Require all granted
    Options FollowSymLinks
    {fallback}
</Directory>
"""


class _Servers:
    """`port` answers. `worker` is the process that runs PHP, `deaths` counts those before it."""

    def __init__(self, site, variant, directory):
        self.directory = pathlib.Path(directory)
        self.directory.mkdir(exist_ok=True)
        self.directory.chmod(0o755)
        self._processes = []
        self.deaths = 0
        self._environment = engines.environment({
            "PATH": loopback.SEARCH, "TMPDIR": str(site.temporary), **site.environment,
            **variant.environment})
        self.port = loopback.free_port()
        # Where the engine logs: a file of the worker's user.
        self.php_log = site.temporary / (self.directory.name + "-php.log")
        site.empty(self.php_log)
        self.ini = self.directory / "php.ini"
        self.ini.write_text(site.ini(variant, self.php_log), encoding="utf-8")
        try:
            self._start(site)
            self.worker = self._find_worker()
            self.said_at_start = self.php_log.read_text(encoding="utf-8", errors="replace")
        except BaseException:
            self.stop()
            raise

    def _process(self, command, stop_signal=signal.SIGTERM):
        process = Process([str(word) for word in command], self.directory, self._environment,
                          stop_signal)
        self._processes.append(process)
        return process

    def _find_worker(self):
        deadline = time.monotonic() + START_SECONDS
        while time.monotonic() < deadline:
            children = self._processes[0].children()
            if children:
                return children[-1]
            time.sleep(0.02)
        raise Failure("there is no worker: " + self._processes[0].log[-2000:])

    def cpu_seconds(self):
        """What the worker has used, once it has nothing to do. One that died has a successor."""
        wait_until_idle(self.worker, self.accepts)
        try:
            return cpu_seconds(self.worker)
        except OSError:
            self.deaths += 1
            self.worker = self._find_worker()
            return cpu_seconds(self.worker)

    def peak_kib(self):
        return peak_kib(self.worker)

    def server_log(self):
        """What the servers themselves wrote; the engine's log is php_log."""
        logs = [process.log for process in self._processes]
        for name in self.own_logs:
            path = self.directory / name
            if path.exists():
                logs.append(path.read_text(encoding="utf-8", errors="replace"))
        return "".join(logs)

    def stop(self):
        """First the one in front."""
        while self._processes:
            self._processes.pop().stop()


class Fpm(_Servers):
    own_logs = ("fpm.log",)
    accepts = True

    def _start(self, site):
        # As short as can be: the path of a socket has at most 107 characters.
        socket = self.directory / "s"
        as_root = os.geteuid() == 0
        identity = "user = %s\ngroup = %s" % (OWNER, GROUP) if as_root else ""
        pool = self.directory / "fpm.conf"
        pool.write_text(FPM.format(directory=self.directory, socket=socket, identity=identity))
        # SIGQUIT lets the worker finish; what a profiler writes then belongs to the run.
        self._process([site.engine.fpm, "-c", self.ini, "-F", "-y", pool], signal.SIGQUIT).wait_for(
            socket)
        front = self.directory / "nginx.conf"
        front.write_text(NGINX.format(directory=self.directory, port=self.port, socket=socket,
                                      host=HOST, documents=site.documents, front=site.front))
        self._process([loopback.program("nginx"), "-p", self.directory, "-e", "stderr",
                       "-c", front]).wait_for(self.port)


class Apache(_Servers):
    own_logs = ("server.log",)
    accepts = False

    def _start(self, site):
        text = loopback.apache_configuration(site.engine, "prefork", self.directory, self.port)
        text = text.replace("SetHandler application/x-httpd-php\n", "").replace(
            'DocumentRoot "%s/pages"' % self.directory, 'DocumentRoot "%s"' % site.documents)
        text = text.replace("ServerName 127.0.0.1\n", "").replace("KeepAlive Off", "KeepAlive On")
        path = site.front.partition("?")[0]
        fallback = "FallbackResource " + path if path.endswith(".php") else ""
        text += APACHE.format(modules=loopback.APACHE_MODULES, host=HOST,
                              documents=site.documents, fallback=fallback)
        text += '<FilesMatch "\\.php$">\nSetHandler application/x-httpd-php\n</FilesMatch>\n'
        configuration = self.directory / "apache.conf"
        configuration.write_text(text)
        self._process([loopback.program("apache2"), "-DFOREGROUND", "-d", self.directory,
                       "-f", configuration]).wait_for(self.port)


KINDS = {"fpm": Fpm, "apache": Apache}
