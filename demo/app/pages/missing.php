<?php
http_response_code(404);
?>
<h1>No such page</h1>
