<?php
// How the services ask each other, as JSON over HTTP.

// service_url: where a service listens; DEMO_PRICES=http://127.0.0.1:8081 tells it for "prices".
function service_url($name, $path, $port)
{
    $base = getenv('DEMO_' . strtoupper($name));
    return ($base === false ? 'http://127.0.0.1:' . $port : $base) . $path;
}

function prices_url($path)
{
    return service_url('prices', $path, 8081);
}

function stock_url($path)
{
    return service_url('stock', $path, 8082);
}

function open_transfer($url)
{
    $transfer = curl_init($url);
    curl_setopt($transfer, CURLOPT_RETURNTRANSFER, true);
    curl_setopt($transfer, CURLOPT_TIMEOUT, 10);
    curl_setopt($transfer, CURLOPT_HTTPHEADER, ['Accept: application/json']);
    return $transfer;
}

function decoded($url, $text)
{
    $answer = json_decode((string) $text, true);
    if (!is_array($answer)) {
        throw new RuntimeException("No answer from $url");
    }
    return $answer;
}

// ask: one question, waiting for its answer.
function ask($url)
{
    return decoded($url, curl_exec(open_transfer($url)));
}

// ask_all: several questions at once; the answers have the keys of the addresses.
function ask_all(array $urls)
{
    $multi = curl_multi_init();
    $transfers = array_map('open_transfer', $urls);
    foreach ($transfers as $transfer) {
        curl_multi_add_handle($multi, $transfer);
    }
    do {
        $status = curl_multi_exec($multi, $running);
        if ($running > 0 && curl_multi_select($multi, 1.0) === -1) {
            usleep(1000);
        }
    } while ($running > 0 && $status === CURLM_OK);
    $answers = [];
    foreach ($transfers as $key => $transfer) {
        $answers[$key] = decoded($urls[$key], curl_multi_getcontent($transfer));
        curl_multi_remove_handle($multi, $transfer);
    }
    curl_multi_close($multi);
    return $answers;
}

// page_wanted: the function of the request's path.
function page_wanted(array $pages)
{
    $path = (string) parse_url($_SERVER['REQUEST_URI'], PHP_URL_PATH);
    return isset($pages[$path]) ? $pages[$path] : 'no_such_page';
}

function no_such_page()
{
    http_response_code(404);
    return ['problem' => 'no such page'];
}

function item_wanted()
{
    return isset($_GET['item']) ? (int) $_GET['item'] : 1;
}
