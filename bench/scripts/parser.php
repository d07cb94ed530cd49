<?php
// parser.php LIBRARY BYTES ITERATIONS: reads sources of the PHP parser's own up to so many bytes in
// all, parses them and prints them anew. See measured.php.
require __DIR__ . '/measured.php';

list(, $library, $bytes, $iterations) = $argv;
spl_autoload_register(function ($class) use ($library) {
    $path = $library . '/' . strtr($class, '\\', '/') . '.php';
    if (is_file($path)) {
        require $path;
    }
});

function sources($directory, $bytes)
{
    $paths = array();
    $files = new RecursiveIteratorIterator(
        new RecursiveDirectoryIterator($directory, FilesystemIterator::SKIP_DOTS));
    foreach ($files as $file) {
        // The largest are generated tables.
        if ($file->getExtension() === 'php' && $file->getSize() < 60000) {
            $paths[] = (string) $file;
        }
    }
    sort($paths);
    $sources = array();
    foreach ($paths as $path) {
        $sources[] = file_get_contents($path);
        $bytes -= filesize($path);
        if ($bytes <= 0) {
            break;
        }
    }
    return $sources;
}

$sources = sources($library . '/PhpParser', (int) $bytes);
measure((int) $iterations, function () use ($sources) {
    $parser = (new PhpParser\ParserFactory())->create(PhpParser\ParserFactory::PREFER_PHP7);
    $printer = new PhpParser\PrettyPrinter\Standard();
    $text = '';
    foreach ($sources as $source) {
        $text .= $printer->prettyPrintFile($parser->parse($source));
    }
    return $text;
});
