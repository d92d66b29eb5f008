<?php
return [
    'database' => 'bakery',
    'user' => 'bakery',
    'debug' => false,
];
