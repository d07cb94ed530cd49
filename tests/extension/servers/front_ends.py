"""Web servers as the server interfaces of a service (see services.py): nginx in front of a FastCGI
server, and Apache with the engine's module. On loopback, on free ports, in temporary directories,
apart from any service of the machine."""
import collections
import json
import os
import pathlib
import shutil
import socket

import engines
import loopback
import server_interfaces
import services

NGINX = """
daemon off;
master_process off;
pid {directory}/nginx.pid;
error_log stderr;
events {{ worker_connections 64; }}
http {{
    access_log off;
    client_body_temp_path {directory}/body;
    fastcgi_temp_path {directory}/fastcgi;
    proxy_temp_path {directory}/proxy;
    scgi_temp_path {directory}/scgi;
    uwsgi_temp_path {directory}/uwsgi;
    server {{
        listen 127.0.0.1:{port};
        location / {{
            fastcgi_pass unix:{socket};
            fastcgi_param SCRIPT_FILENAME {page};
            fastcgi_param SCRIPT_NAME /page.php;
            fastcgi_param REQUEST_URI $request_uri;
            fastcgi_param QUERY_STRING $query_string;
            fastcgi_param REQUEST_METHOD $request_method;
            fastcgi_param CONTENT_TYPE $content_type;
            fastcgi_param CONTENT_LENGTH $content_length;
            fastcgi_param SERVER_PROTOCOL $server_protocol;
            fastcgi_param SERVER_NAME $server_name;
            fastcgi_param SERVER_PORT $server_port;
            fastcgi_param GATEWAY_INTERFACE CGI/1.1;
            fastcgi_param REDIRECT_STATUS 200;
        }}
    }}
}}
"""

# A process serves one request at a time here: a thread-safe engine is as good for that as another.
APACHE = """
LoadModule alias_module "{modules}/mod_alias.so"
AliasMatch "^/" "{directory}/pages/page.php"
MinSpareServers 1
MaxSpareServers 1
MaxRequestWorkers 4
"""
HTTP2 = """
LoadModule http2_module "{modules}/mod_http2.so"
Protocols h2c http/1.1
"""
# The client of HTTP/2 is the engine's curl, without the extension.
ASK_BY_HTTP2 = """
    $call = curl_init($argv[1]);
    curl_setopt_array($call, [
        CURLOPT_RETURNTRANSFER => true, CURLOPT_HEADER => true, CURLOPT_TIMEOUT => 20,
        CURLOPT_HTTP_VERSION => 5, CURLOPT_HTTPHEADER => json_decode($argv[2])]);
    echo curl_exec($call);
"""


class _WebServer(server_interfaces.BuiltinServer):
    """Takes requests as server_interfaces.BuiltinServer does, at `port`; only the process is another."""

    def __init__(self):
        super(server_interfaces.BuiltinServer, self).__init__()

    def _serve(self, configuration, command, environment=None):
        """`configuration` lacks only the port. A free one may be taken by somebody else before the
        server has it: tried again."""
        path = os.path.join(self.directory, "configuration")
        for _ in range(3):
            self.port = loopback.free_port()
            with open(path, "w", encoding="utf-8") as file:
                file.write(configuration.replace("{port}", str(self.port)))
            self._start([*command, path], environment)
            if self._await(socket.AF_INET, ("127.0.0.1", self.port)):
                return
        raise AssertionError(self.log)

    def request(self, path="/", method="GET", headers=(), body=b""):
        answer = super().request(path, method, [("Host", "127.0.0.1"), *headers], body)
        assert answer.status == 200, (answer.status, answer.body[:500], self.log[-3000:])
        return answer


class _Nginx(_WebServer):
    def __init__(self, environment, engine, options, page):
        super().__init__()
        program = loopback.program("nginx")
        self._behind = services.SERVER_INTERFACES[self.behind](environment, engine, options, page)
        try:
            self._serve(
                NGINX.format(directory=self.directory, socket=self._behind.socket, page=page,
                             port="{port}"),
                [program, "-p", self.directory, "-e", "stderr", "-c"])
        except BaseException:
            self.close()
            raise

    def close(self):
        super().close()
        self._behind.close()


class NginxFpm(_Nginx):
    behind = "fpm"


class NginxCgi(_Nginx):
    behind = "cgi"


class Apache(_WebServer):
    more = ""

    def __init__(self, environment, engine, options, page):
        super().__init__()
        try:
            program = loopback.program("apache2")
            os.chmod(self.directory, 0o755)
            pages = pathlib.Path(self.directory, "pages")
            pages.mkdir()
            shutil.copy(page, pages / "page.php")
            settings = [text for flag, text in zip(options, options[1:]) if flag == "-d"]
            pathlib.Path(self.directory, "php.ini").write_text(
                "\n".join(settings) + "\n", encoding="ascii")
            # When it ends it ends its process group, which must not be that of the tests.
            self._serve(
                loopback.apache_configuration(engine, "prefork", self.directory, "{port}")
                + (APACHE + self.more).format(directory=self.directory,
                                              modules=loopback.APACHE_MODULES),
                ["setsid", program, "-DFOREGROUND", "-d", self.directory, "-f"],
                {"PATH": loopback.SEARCH, **environment})
        except BaseException:
            self.close()
            raise


Answer = collections.namedtuple("Answer", "status body")


class ApacheHttp2(Apache):
    more = HTTP2

    def __init__(self, environment, engine, options, page):
        super().__init__(environment, engine, options, page)
        self._client = [engine.php, "-n", *services.curl_options(engine), "-r", ASK_BY_HTTP2]

    def request(self, path="/", method="GET", headers=(), body=b""):
        assert method == "GET" and not body
        told = engines.run([*self._client, "http://127.0.0.1:%d%s" % (self.port, path),
                            json.dumps(["%s: %s" % pair for pair in headers])])
        head, _, answered = told.stdout.partition(b"\r\n\r\n")
        assert head.startswith(b"HTTP/2 200"), (told, self.log[-3000:])
        return Answer(200, answered)


KINDS = {"nginx-fpm": NginxFpm, "nginx-cgi": NginxCgi, "apache": Apache,
         "apache-http2": ApacheHttp2}
